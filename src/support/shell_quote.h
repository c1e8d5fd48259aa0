// Quoting for the shell command texts Corvane builds (administrator commands): the whole text
// in single quotes, each ' written as '\''. Safe for any byte sequence but NUL.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

std::string shellQuote(std::string_view text);

}  // namespace corvane
