// The interface languages a user can choose, and the rule that maps the system's preferred
// language onto the three languages Corvane ships.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

enum class Language { system, zhHans, zhHant, en };

// Every case, in the order settings list them.
inline constexpr std::array<Language, 4> kAllLanguages = {Language::system, Language::zhHans, Language::zhHant,
                                                          Language::en};

// "system", "zh-Hans", "zh-Hant", "en": the value stored under "AppLanguage".
std::string_view rawValue(Language language);
// The language with that raw value exactly; absent for anything else.
std::optional<Language> parseLanguage(std::string_view raw);

// The language code ("en", "zh-Hans" or "zh-Hant") for a preferred-language list, most
// preferred first. Locale names in POSIX form (zh_TW.UTF-8, zh_CN@stroke) count as the
// same codes; "C", "POSIX" and an empty list mean English.
std::string systemLanguageCode(const std::vector<std::string>& preferredLanguages);

}  // namespace corvane
