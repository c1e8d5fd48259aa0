// A text written as a JavaScript string literal for automation scripts: its JSON encoding, the
// way the system's standard JSON encoder writes it (double quotes, backslash escapes, and "/"
// as "\/"). Invalid UTF-8 is replaced rather than refused.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

std::string javaScriptLiteral(std::string_view text);

}  // namespace corvane
