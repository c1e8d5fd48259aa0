#include <chrono>
#include <exception>

#include "platform/apple_script_runner.h"

namespace corvane::platform {

using namespace std::chrono_literals;

AppleScriptResult runAppleScript(const std::string& source) {
  ProcessRequest request;
  request.executable = "/usr/bin/osascript";
  request.arguments = {"-e", source};
  ProcessDeadlines deadlines;
  // A script "with administrator privileges" waits for someone to type a password.
  deadlines.exit = 15min;
  try {
    const auto result = runProcess(request, deadlines);
    return interpretOsascriptResult(result.exit, result.standardError);
  } catch (const std::exception& failure) {
    AppleScriptResult result;
    result.compiled = false;
    result.errorNumber = -1;
    result.message = failure.what();
    return result;
  }
}

}  // namespace corvane::platform
