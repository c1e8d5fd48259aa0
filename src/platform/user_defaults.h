// The user's persisted settings ("user defaults"): strings under keys that outlive the
// process. macOS keeps them in the application's preferences domain; Linux in the JSON object
// of $XDG_CONFIG_HOME/corvane/settings.json (~/.config when the variable is unset), which is
// replaced atomically and keeps every key it does not change.
//
// Error contract: readUserDefault returns absent for a key that is not set or not a string,
// and when no settings exist yet; it throws UserDefaultsCorrupted when the settings exist but
// cannot be understood, and PosixError when they cannot be read. writeUserDefault throws
// PosixError; over corrupted settings it starts afresh, keeping the damaged file aside as
// settings.json.corrupt.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

namespace corvane::platform {

class UserDefaultsCorrupted : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

std::optional<std::string> readUserDefault(const std::string& key);
void writeUserDefault(const std::string& key, const std::string& value);

// Where the settings live, for messages and diagnostics (a file path on Linux, the
// preferences domain on macOS).
std::string userDefaultsLocation();

}  // namespace corvane::platform
