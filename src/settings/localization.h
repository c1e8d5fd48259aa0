// Every user-visible text is a localization key looked up here. Texts with arguments use
// positional placeholders ({0}, {1}, ...) so translations can reorder them.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// The key's text in the current language, else in English, else the key itself.
std::string localized(std::string_view key);

// Fills positional placeholders; a text whose placeholders do not fit its arguments is shown
// as it stands instead of failing.
std::string formatLocalizedText(std::string_view text, const std::vector<std::string>& arguments);

template <typename... Args>
std::string localizedFormat(std::string_view key, const Args&... arguments) {
  return formatLocalizedText(localized(key), {fmt::format("{}", arguments)...});
}

// The text of an error key with its detail (usually a path): placed at {0} when the text has
// a placeholder, appended after a colon otherwise.
std::string localizedWithDetail(std::string_view key, std::string_view detail);

}  // namespace corvane
