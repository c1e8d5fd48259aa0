// The user's persisted settings as the rest of Corvane sees them: a string per key, read and
// written through the platform's user defaults. A failure is logged, never thrown: a damaged
// or unreadable settings store reads as "nothing saved yet".
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

class SettingsStore {
 public:
  std::optional<std::string> string(std::string_view key) const;
  // False (and logged) when the value could not be stored.
  [[nodiscard]] bool setString(std::string_view key, std::string_view value);
};

}  // namespace corvane
