#include "platform/open_file_fields.h"

#include <fmt/format.h>

namespace corvane::platform {

std::string escapeListerText(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    switch (byte) {
      case '\\':
        text += "\\\\";
        continue;
      case '\b':
        text += "\\b";
        continue;
      case '\f':
        text += "\\f";
        continue;
      case '\n':
        text += "\\n";
        continue;
      case '\r':
        text += "\\r";
        continue;
      case '\t':
        text += "\\t";
        continue;
      default:
        break;
    }
    if (byte >= 0x20 && byte < 0x7f) {
      text += character;
    } else if (byte < 0x20) {
      text += '^';
      text += static_cast<char>(byte + 0x40);
    } else {
      text += fmt::format("\\x{:02x}", byte);
    }
  }
  return text;
}

namespace {

int hexValue(char character) {
  if (character >= '0' && character <= '9') return character - '0';
  if (character >= 'a' && character <= 'f') return character - 'a' + 10;
  if (character >= 'A' && character <= 'F') return character - 'A' + 10;
  return -1;
}

}  // namespace

std::string unescapeListerText(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char character = text[i];
    if (character == '^' && i + 1 < text.size() && text[i + 1] >= '@' && text[i + 1] <= '_') {
      bytes += static_cast<char>(text[++i] - 0x40);
      continue;
    }
    if (character != '\\' || i + 1 >= text.size()) {
      bytes += character;
      continue;
    }
    const char next = text[i + 1];
    switch (next) {
      case '\\':
        bytes += '\\';
        ++i;
        continue;
      case 'b':
        bytes += '\b';
        ++i;
        continue;
      case 'f':
        bytes += '\f';
        ++i;
        continue;
      case 'n':
        bytes += '\n';
        ++i;
        continue;
      case 'r':
        bytes += '\r';
        ++i;
        continue;
      case 't':
        bytes += '\t';
        ++i;
        continue;
      case 'x':
        if (i + 3 < text.size() && hexValue(text[i + 2]) >= 0 && hexValue(text[i + 3]) >= 0) {
          bytes += static_cast<char>(hexValue(text[i + 2]) * 16 + hexValue(text[i + 3]));
          i += 3;
          continue;
        }
        break;
      default:
        break;
    }
    // Not an escape lsof writes: keep the text as printed.
    bytes += character;
  }
  return bytes;
}

}  // namespace corvane::platform
