// The path of the program a process runs, as /proc/<pid>/exe names it.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <string_view>

namespace corvane::platform {

// Empty when the process is gone or runs no program (a kernel thread). A program replaced on
// disk while it runs is named by the path it was started from, without the kernel's
// " (deleted)" mark.
inline std::string programPathOf(const std::string& procDirectory) {
  char target[4096];
  const ssize_t length = readlink((procDirectory + "/exe").c_str(), target, sizeof target);
  if (length <= 0 || static_cast<std::size_t>(length) >= sizeof target) return {};
  std::string path(target, static_cast<std::size_t>(length));
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.size() > kDeleted.size() && path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0) {
    path.resize(path.size() - kDeleted.size());
  }
  return path;
}

}  // namespace corvane::platform
