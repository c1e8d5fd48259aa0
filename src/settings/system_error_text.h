// What the system said when a call failed, in the user's language: the common errors a file
// operation meets have their own texts; any other keeps the C library's wording.
#pragma once

#include <optional>
#include <string>

namespace corvane {

// The localization key of a system error ("error.errno.ENOSPC"), absent for uncommon ones.
std::optional<std::string> systemErrorKey(int errnoValue);
// The localized text of a system error.
std::string localizedSystemError(int errnoValue);

}  // namespace corvane
