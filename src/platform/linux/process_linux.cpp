#include <unistd.h>

#include <climits>

#include "platform/posix_error.h"
#include "platform/process.h"

namespace corvane::platform {

std::string currentExecutablePath() {
  char buffer[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer);
  if (length < 0 || static_cast<std::size_t>(length) >= sizeof buffer) throwErrno("/proc/self/exe");
  return std::string(buffer, static_cast<std::size_t>(length));
}

}  // namespace corvane::platform
