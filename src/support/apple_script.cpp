#include "support/apple_script.h"

namespace corvane {

std::string appleScriptStringEscape(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size() + text.size() / 8 + 2);
  for (char c : text) {
    switch (c) {
      case '\\':
        escaped += "\\\\";
        break;
      case '"':
        escaped += "\\\"";
        break;
      case '\n':
        escaped += "\\n";
        break;
      case '\r':
        escaped += "\\r";
        break;
      default:
        escaped.push_back(c);
    }
  }
  return escaped;
}

std::string appleScriptQuoteEscape(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size() + text.size() / 8 + 2);
  for (char c : text) {
    if (c == '\\' || c == '"') escaped.push_back('\\');
    escaped.push_back(c);
  }
  return escaped;
}

std::string administratorAppleScript(std::string_view shellCommand) {
  return "try\n    do shell script \"" + appleScriptStringEscape(shellCommand) +
         "\" with administrator privileges\n    return \"0\"\non error message number errorNumber\n"
         "    return errorNumber as string\nend try";
}

}  // namespace corvane
