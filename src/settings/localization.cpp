#include "settings/localization.h"

#include <fmt/args.h>

#include "settings/localization_manager.h"

namespace corvane {

std::string localized(std::string_view key) { return LocalizationManager::shared().localized(key); }

std::string formatLocalizedText(std::string_view text, const std::vector<std::string>& arguments) {
  fmt::dynamic_format_arg_store<fmt::format_context> store;
  for (const auto& argument : arguments) store.push_back(argument);
  try {
    return fmt::vformat(text, store);
  } catch (const fmt::format_error&) {
    return std::string(text);
  }
}

std::string localizedWithDetail(std::string_view key, std::string_view detail) {
  const std::string text = localized(key);
  if (text.find("{0}") != std::string::npos) return formatLocalizedText(text, {std::string(detail)});
  if (detail.empty()) return text;
  // A sentence's full stop would stand before the colon: "… left alone.: /path".
  std::string sentence = text;
  for (const std::string_view stop : {".", "。"}) {
    if (sentence.size() > stop.size() && sentence.ends_with(stop)) sentence.resize(sentence.size() - stop.size());
  }
  // The separator differs by language (a full-width colon in Chinese).
  std::string pattern = localized("error.with_detail");
  if (pattern.find("{0}") == std::string::npos || pattern.find("{1}") == std::string::npos) pattern = "{0}: {1}";
  return formatLocalizedText(pattern, {sentence, std::string(detail)});
}

}  // namespace corvane
