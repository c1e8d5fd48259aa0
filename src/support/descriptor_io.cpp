#include "support/descriptor_io.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace corvane {

bool writeAll(int descriptor, std::string_view data) {
  while (!data.empty()) {
    const ssize_t count = ::write(descriptor, data.data(), data.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    data.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

ssize_t readFully(int descriptor, char* buffer, std::size_t capacity) {
  std::size_t filled = 0;
  while (filled < capacity) {
    const ssize_t count = ::read(descriptor, buffer + filled, capacity - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -1;
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  return static_cast<ssize_t>(filled);
}

bool readToEnd(int descriptor, std::string& contents, std::size_t limit) {
  char buffer[65536];
  while (true) {
    const ssize_t count = readFully(descriptor, buffer, sizeof buffer);
    if (count < 0) return false;
    // The file may grow while it is read.
    if (static_cast<std::size_t>(count) > limit - std::min(limit, contents.size())) {
      errno = EFBIG;
      return false;
    }
    contents.append(buffer, static_cast<std::size_t>(count));
    if (static_cast<std::size_t>(count) < sizeof buffer) return true;
  }
}

}  // namespace corvane
