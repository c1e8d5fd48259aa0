#include <stdexcept>

#include "platform/socket_holders.h"

namespace corvane::platform {

bool hasNativeSocketHolders() { return false; }

std::vector<SocketHolder> unixSocketHolders(const std::string&) {
  throw std::logic_error("there is no native socket scan on macOS; lsof finds the holders");
}

}  // namespace corvane::platform
