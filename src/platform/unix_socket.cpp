#include "platform/unix_socket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "platform/unique_fd.h"

namespace corvane::platform {

namespace {

// The address length the probe passes everywhere: macOS's whole sockaddr_un (106 bytes). It
// covers a name of kUnixSocketNameLimit bytes and its terminator, and lies within Linux's
// larger structure, so one value serves both.
constexpr socklen_t kAddressLength = 106;
static_assert(kAddressLength <= sizeof(sockaddr_un));
static_assert(offsetof(sockaddr_un, sun_path) + kUnixSocketNameLimit + 1 <= kAddressLength);

}  // namespace

std::optional<int> connectUnixSocket(const std::string& name, UnixSocketType type) {
  if (name.size() > kUnixSocketNameLimit) return std::nullopt;
  UniqueFd fd(::socket(AF_UNIX, type == UnixSocketType::stream ? SOCK_STREAM : SOCK_DGRAM, 0));
  if (!fd) return std::nullopt;
  fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
  const int flags = fcntl(fd.get(), F_GETFL);
  if (flags < 0 || fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK) != 0) return std::nullopt;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), kAddressLength) == 0) return 0;
  return errno;
}

}  // namespace corvane::platform
