#include "settings/settings_store.h"

#include <fmt/format.h>

#include "platform/user_defaults.h"
#include "support/diagnostic_log.h"

namespace corvane {

std::optional<std::string> SettingsStore::string(std::string_view key) const {
  try {
    return platform::readUserDefault(std::string(key));
  } catch (const platform::UserDefaultsCorrupted& error) {
    logWarning(fmt::format("Settings are damaged and are treated as a first start: {}", error.what()));
  } catch (const std::exception& error) {
    logWarning(fmt::format("Settings in {} can't be read: {}", platform::userDefaultsLocation(), error.what()));
  }
  return std::nullopt;
}

bool SettingsStore::setString(std::string_view key, std::string_view value) {
  try {
    platform::writeUserDefault(std::string(key), std::string(value));
    return true;
  } catch (const std::exception& error) {
    logError(fmt::format("Setting {} can't be saved in {}: {}", key, platform::userDefaultsLocation(), error.what()));
    return false;
  }
}

}  // namespace corvane
