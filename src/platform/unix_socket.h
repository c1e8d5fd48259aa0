// One attempt to connect to a UNIX-domain socket by its file name in the current directory,
// without blocking: the socket probe's question "does anybody listen on this name?".
//
// Error contract: never throws. The result is the connect's outcome as an errno value.
#pragma once

#include <optional>
#include <string>

namespace corvane::platform {

enum class UnixSocketType { stream, datagram };

// Names longer than this cannot be given to connect on every platform (macOS's sun_path holds
// 104 bytes with the terminator).
inline constexpr std::size_t kUnixSocketNameLimit = 103;

// Creates a non-blocking UNIX-domain socket of `type`, connects it to `name` and closes it.
// Absent when the socket could not be created or made non-blocking (or the name does not fit);
// otherwise 0 for a completed connect or the errno the connect failed with.
std::optional<int> connectUnixSocket(const std::string& name, UnixSocketType type);

}  // namespace corvane::platform
