#include "settings/byte_format.h"

#include <fmt/format.h>

#include "settings/localization.h"

namespace corvane {

std::string formatByteCount(std::int64_t bytes) {
  static constexpr const char* kUnits[] = {"", "KB", "MB", "GB", "TB", "PB"};
  // The unit symbols read alike in every language; the word for bytes does not.
  if (bytes < 1000)
    return formatLocalizedText(localized(bytes == 1 ? "unit.byte" : "unit.bytes"), {std::to_string(bytes)});
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
