#include "disks/fstab_table.h"

#include <algorithm>
#include <cctype>

namespace corvane {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }
bool isWhitespace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

std::string_view trimmedBlanks(std::string_view line) {
  while (!line.empty() && isBlank(line.front())) line.remove_prefix(1);
  while (!line.empty() && isBlank(line.back())) line.remove_suffix(1);
  return line;
}

}  // namespace

std::optional<std::string> protectingFstabLine(std::string_view table, std::string_view uuid) {
  const std::string wanted = "UUID=" + std::string(uuid);
  std::size_t start = 0;
  while (start < table.size()) {
    std::size_t end = table.find('\n', start);
    if (end == std::string_view::npos) end = table.size();
    const std::string_view line = trimmedBlanks(table.substr(start, end - start));
    start = end + 1;
    if (line.empty() || line.front() == '#') continue;
    std::size_t fieldStart = 0;
    while (fieldStart < line.size() && isWhitespace(line[fieldStart])) ++fieldStart;
    std::size_t fieldEnd = fieldStart;
    while (fieldEnd < line.size() && !isWhitespace(line[fieldEnd])) ++fieldEnd;
    if (equalIgnoringCase(line.substr(fieldStart, fieldEnd - fieldStart), wanted)) return std::string(line);
  }
  return std::nullopt;
}

}  // namespace corvane
