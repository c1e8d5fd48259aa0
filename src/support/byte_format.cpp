#include "support/byte_format.h"

#include <fmt/format.h>

namespace corvane {

std::string formatByteCount(std::int64_t bytes) {
  static constexpr const char* kUnits[] = {"bytes", "KB", "MB", "GB", "TB", "PB"};
  if (bytes < 1000) return fmt::format("{} {}", bytes, bytes == 1 ? "byte" : kUnits[0]);
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1000 && unit < 5) {
    value /= 1000;
    ++unit;
  }
  const int decimals = value < 10 ? 2 : value < 100 ? 1 : 0;
  return fmt::format("{:.{}f} {}", value, decimals, kUnits[unit]);
}

}  // namespace corvane
