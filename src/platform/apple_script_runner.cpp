#include "platform/apple_script_runner.h"

#include <charconv>

#include "platform/administrator_runner.h"

namespace corvane::platform {

AppleScriptOutcome interpretOsascriptResult(const ProcessExit& exit, const std::string& standardError) {
  AppleScriptOutcome outcome;
  if (exit.succeeded()) {
    outcome.succeeded = true;
    return outcome;
  }
  std::string text = trimmedLauncherOutput(standardError);
  outcome.compiled = text.find("syntax error") == std::string::npos;
  // The number closes the complaint in parentheses: "... execution error: MESSAGE (NUMBER)".
  if (!text.empty() && text.back() == ')') {
    if (const auto open = text.rfind('('); open != std::string::npos) {
      int number = 0;
      const char* first = text.data() + open + 1;
      const char* last = text.data() + text.size() - 1;
      if (const auto [end, error] = std::from_chars(first, last, number); error == std::errc() && end == last) {
        outcome.errorNumber = number;
        text = trimmedLauncherOutput(text.substr(0, open));
      }
    }
  }
  if (const auto marker = text.find("error: "); marker != std::string::npos) text.erase(0, marker + 7);
  if (!text.empty()) outcome.errorMessage = text;
  return outcome;
}

}  // namespace corvane::platform
