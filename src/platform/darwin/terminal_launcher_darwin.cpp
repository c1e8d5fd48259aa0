#include "platform/apple_script_runner.h"
#include "platform/terminal_launcher.h"
#include "support/diagnostic_log.h"

namespace corvane::platform {
namespace {

// Characters, not bytes: the continuation bytes of UTF-8 are not counted.
std::size_t characterCount(const std::string& text) {
  std::size_t count = 0;
  for (unsigned char c : text) count += (c & 0xC0) != 0x80 ? 1 : 0;
  return count;
}

}  // namespace

void openTerminalAndRun(const std::string& command) {
  const std::string script = terminalAppleScript(command);
  logInfo("Running AppleScript with command length: " + std::to_string(characterCount(command)));
  const auto result = runAppleScript(script);
  if (!result.succeeded)
    logError("❌ AppleScript Execution Error: " +
             (result.message.empty() ? std::string("Unknown error") : result.message));
}

}  // namespace corvane::platform
