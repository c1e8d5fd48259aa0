#include <cstdlib>
#include <string_view>

#include "platform/preferred_languages.h"

namespace corvane::platform {

std::vector<std::string> preferredLanguages() {
  for (const char* variable : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(variable);
    if (value == nullptr || *value == '\0') continue;
    std::vector<std::string> languages;
    std::string_view rest(value);
    // Only LANGUAGE holds a list, but splitting a single locale name on ':' changes nothing.
    while (!rest.empty()) {
      const auto colon = rest.find(':');
      const auto entry = rest.substr(0, colon);
      if (!entry.empty()) languages.emplace_back(entry);
      if (colon == std::string_view::npos) break;
      rest.remove_prefix(colon + 1);
    }
    if (!languages.empty()) return languages;
  }
  return {};
}

}  // namespace corvane::platform
