#include "support/language.h"

#include <algorithm>
#include <cctype>

namespace corvane {
namespace {

// "zh_TW.UTF-8@variant" → "zh-tw": the language tag in lower case, so that the prefixes below
// compare without regard to case or to the POSIX spelling.
std::string normalizedTag(std::string_view name) {
  const auto end = name.find_first_of(".@");
  if (end != std::string_view::npos) name = name.substr(0, end);
  std::string tag;
  tag.reserve(name.size());
  for (const char c : name) {
    tag.push_back(c == '_' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  }
  return tag;
}

bool hasTagPrefix(std::string_view tag, std::string_view prefix) { return tag.substr(0, prefix.size()) == prefix; }

}  // namespace

std::string_view rawValue(Language language) {
  switch (language) {
    case Language::system:
      return "system";
    case Language::zhHans:
      return "zh-Hans";
    case Language::zhHant:
      return "zh-Hant";
    case Language::en:
      return "en";
  }
  return "system";
}

std::optional<Language> parseLanguage(std::string_view raw) {
  for (const Language language : kAllLanguages) {
    if (rawValue(language) == raw) return language;
  }
  return std::nullopt;
}

std::string systemLanguageCode(const std::vector<std::string>& preferredLanguages) {
  if (preferredLanguages.empty()) return "en";
  const std::string tag = normalizedTag(preferredLanguages.front());
  if (hasTagPrefix(tag, "zh-hans") || hasTagPrefix(tag, "zh-cn")) return "zh-Hans";
  if (hasTagPrefix(tag, "zh-hant") || hasTagPrefix(tag, "zh-tw") || hasTagPrefix(tag, "zh-hk")) return "zh-Hant";
  return "en";
}

}  // namespace corvane
