// How languages are named to the user: the setting ("Follow the system", "English", ...) and
// the list of values the language command accepts.
#pragma once

#include <string>

#include "support/language.h"

namespace corvane {

std::string languageDisplayName(Language language);
// The name of a language code in use ("en", "zh-Hans", "zh-Hant").
std::string languageCodeDisplayName(const std::string& code);
// "en, zh-Hans, zh-Hant, system".
std::string languageChoicesText();

}  // namespace corvane
