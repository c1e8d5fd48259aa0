#include "settings/language_names.h"

#include "settings/localization.h"

namespace corvane {

std::string languageDisplayName(Language language) {
  switch (language) {
    case Language::system:
      return localized("language.name.system");
    case Language::zhHans:
      return localized("language.name.zh_hans");
    case Language::zhHant:
      return localized("language.name.zh_hant");
    case Language::en:
      return localized("language.name.en");
  }
  return localized("language.name.system");
}

std::string languageCodeDisplayName(const std::string& code) {
  const auto language = parseLanguage(code);
  return language && *language != Language::system ? languageDisplayName(*language) : code;
}

std::string languageChoicesText() { return "en, zh-Hans, zh-Hant, system"; }

}  // namespace corvane
