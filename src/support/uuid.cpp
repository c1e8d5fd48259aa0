#include "support/uuid.h"

#include <uuid/uuid.h>

#include <cctype>

namespace corvane {

std::string makeUuidString() {
  uuid_t value;
  uuid_generate_random(value);
  char text[37];
  uuid_unparse_upper(value, text);
  return std::string(text);
}

bool isUuidString(const std::string& text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

}  // namespace corvane
