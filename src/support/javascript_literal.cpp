#include "support/javascript_literal.h"

#include <nlohmann/json.hpp>

namespace corvane {

std::string javaScriptLiteral(std::string_view text) {
  const std::string encoded =
      nlohmann::json(std::string(text)).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  // "/" never occurs inside an escape sequence, so it can be escaped after the fact.
  std::string literal;
  literal.reserve(encoded.size() + 8);
  for (char c : encoded) {
    if (c == '/')
      literal += "\\/";
    else
      literal.push_back(c);
  }
  return literal;
}

}  // namespace corvane
