// lsof's way of printing names and command names: printable ASCII as it is, a backslash doubled,
// \b \f \n \r \t, other control characters as ^X, and every other byte as \xHH (the C locale).
// The native lister writes with it and the occupancy parser reads names back with it.
#pragma once

#include <string>
#include <string_view>

namespace corvane::platform {

std::string escapeListerText(std::string_view bytes);
// The inverse of escapeListerText. A literal "^" followed by '@'..'_' in a real name cannot be
// told from an escaped control character; names are only shown, never used to find files.
std::string unescapeListerText(std::string_view text);

}  // namespace corvane::platform
