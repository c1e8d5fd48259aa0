#include <mach-o/dyld.h>

#include <climits>
#include <cstdint>
#include <vector>

#include "platform/posix_error.h"
#include "platform/process.h"

namespace corvane::platform {

std::string currentExecutablePath() {
  std::uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::vector<char> buffer(size + 1, '\0');
  if (_NSGetExecutablePath(buffer.data(), &size) != 0) throwErrno(ENAMETOOLONG, "executable");
  char resolved[PATH_MAX];
  if (realpath(buffer.data(), resolved) == nullptr) return std::string(buffer.data());
  return std::string(resolved);
}

}  // namespace corvane::platform
