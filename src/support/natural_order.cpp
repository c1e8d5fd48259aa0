#include "support/natural_order.h"

namespace corvane {
namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

char foldCase(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

int compareNaturally(std::string_view first, std::string_view second) {
  std::size_t i = 0;
  std::size_t j = 0;
  int zerosTieBreak = 0;
  while (i < first.size() && j < second.size()) {
    if (isDigit(first[i]) && isDigit(second[j])) {
      std::size_t firstStart = i;
      std::size_t secondStart = j;
      while (i < first.size() && first[i] == '0') ++i;
      while (j < second.size() && second[j] == '0') ++j;
      const std::size_t firstZeros = i - firstStart;
      const std::size_t secondZeros = j - secondStart;
      std::size_t firstDigits = i;
      std::size_t secondDigits = j;
      while (firstDigits < first.size() && isDigit(first[firstDigits])) ++firstDigits;
      while (secondDigits < second.size() && isDigit(second[secondDigits])) ++secondDigits;
      // A longer run of significant digits is the larger number.
      const std::size_t firstLength = firstDigits - i;
      const std::size_t secondLength = secondDigits - j;
      if (firstLength != secondLength) return firstLength < secondLength ? -1 : 1;
      const int digits = first.substr(i, firstLength).compare(second.substr(j, secondLength));
      if (digits != 0) return digits < 0 ? -1 : 1;
      if (zerosTieBreak == 0 && firstZeros != secondZeros) zerosTieBreak = firstZeros < secondZeros ? -1 : 1;
      i = firstDigits;
      j = secondDigits;
      continue;
    }
    const char a = foldCase(first[i]);
    const char b = foldCase(second[j]);
    if (a != b) return static_cast<unsigned char>(a) < static_cast<unsigned char>(b) ? -1 : 1;
    ++i;
    ++j;
  }
  if (i < first.size()) return 1;
  if (j < second.size()) return -1;
  if (zerosTieBreak != 0) return zerosTieBreak;
  const int bytes = first.compare(second);
  return bytes < 0 ? -1 : (bytes > 0 ? 1 : 0);
}

}  // namespace corvane
