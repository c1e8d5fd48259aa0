// The processes that hold a UNIX-domain socket bound at a path: the bound socket itself and the
// connections accepted on it. Linux finds them from its own tables by the socket file's identity,
// so a server that bound a relative name, or reached the folder through a symbolic link, is found
// too (lsof matches only the exact path the server bound). macOS has no such scan; lsof finds the
// holders there.
//
// Error contract: unixSocketHolders() throws PosixError when the socket file or the process table
// cannot be read, and std::logic_error on platforms without the scan. Processes that end while
// they are read are left out.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace corvane::platform {

struct SocketHolder {
  pid_t pid = 0;
  std::string command;  // the kernel's short command name, as lsof prints it
  bool operator==(const SocketHolder&) const = default;
};

// Whether unixSocketHolders() works on this platform.
bool hasNativeSocketHolders();

// Empty when the path is no socket or nobody holds it.
std::vector<SocketHolder> unixSocketHolders(const std::string& socketPath);

}  // namespace corvane::platform
