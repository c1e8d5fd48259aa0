#include <chrono>

#include "platform/apple_script_runner.h"

namespace corvane::platform {

using namespace std::chrono_literals;

AppleScriptOutcome runAppleScript(const std::string& source) {
  ProcessRequest request;
  request.executable = "/usr/bin/osascript";
  request.arguments = {"-e", source};
  ProcessDeadlines deadlines;
  // A script "with administrator privileges" waits for someone to type a password.
  deadlines.exit = 15min;
  const auto result = runProcess(request, deadlines);
  return interpretOsascriptResult(result.exit, result.standardError);
}

}  // namespace corvane::platform
