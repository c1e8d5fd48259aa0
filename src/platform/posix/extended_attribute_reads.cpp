#include "platform/posix/extended_attribute_reads.h"

#include <cerrno>

#include "platform/posix_error.h"

namespace corvane::platform {

std::string readSized(const std::function<ssize_t(char*, std::size_t)>& call, const std::string& pathForErrors) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    ssize_t size = call(nullptr, 0);
    if (size < 0) throwErrno(pathForErrors);
    std::string buffer(static_cast<std::size_t>(size), '\0');
    if (size == 0) return buffer;
    ssize_t read = call(buffer.data(), buffer.size());
    if (read >= 0) {
      buffer.resize(static_cast<std::size_t>(read));
      return buffer;
    }
    if (errno != ERANGE) throwErrno(pathForErrors);
  }
  throwErrno(ERANGE, pathForErrors);
}

std::vector<std::string> splitNames(const std::string& names) {
  std::vector<std::string> result;
  std::size_t start = 0;
  while (start < names.size()) {
    std::size_t end = names.find('\0', start);
    if (end == std::string::npos) end = names.size();
    if (end > start) result.emplace_back(names.substr(start, end - start));
    start = end + 1;
  }
  return result;
}

}  // namespace corvane::platform
