#include "platform/apple_script_runner.h"

#include <charconv>

#include "platform/administrator_runner.h"

namespace corvane::platform {

AppleScriptResult interpretOsascriptResult(const ProcessExit& exit, const std::string& standardError) {
  AppleScriptResult result;
  if (exit.succeeded()) {
    result.succeeded = true;
    return result;
  }
  result.errorNumber = -1;
  std::string text = trimmedLauncherOutput(standardError);
  // "0:5: syntax error: ..." means the script never ran.
  result.compiled = text.find("syntax error") == std::string::npos;
  // The number closes the complaint in parentheses: "... execution error: MESSAGE (NUMBER)".
  if (const auto open = text.rfind('('); open != std::string::npos && text.back() == ')') {
    int number = 0;
    const char* first = text.data() + open + 1;
    const char* last = text.data() + text.size() - 1;
    if (const auto [end, error] = std::from_chars(first, last, number); error == std::errc() && end == last) {
      result.errorNumber = number;
      text = trimmedLauncherOutput(text.substr(0, open));
    }
  }
  if (const auto marker = text.find("error: "); marker != std::string::npos) text.erase(0, marker + 7);
  result.message = text;
  return result;
}

}  // namespace corvane::platform
