// The user's preferred interface languages as the system reports them, most preferred first:
// macOS's preferred-languages list; on Linux the first non-empty of LANGUAGE (a colon-separated
// list), LC_ALL, LC_MESSAGES and LANG. Never throws; empty when the system names none.
#pragma once

#include <string>
#include <vector>

namespace corvane::platform {

std::vector<std::string> preferredLanguages();

}  // namespace corvane::platform
