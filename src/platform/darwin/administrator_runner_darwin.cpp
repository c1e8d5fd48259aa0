#include <chrono>

#include "platform/administrator_runner.h"
#include "support/apple_script.h"

namespace corvane::platform {
namespace {

using namespace std::chrono_literals;

// osascript asks for the administrator's password itself and prints the script's result: the
// text "0", or the error number ("-128" when the dialog was dismissed).
class OsascriptAdministratorRunner final : public AdministratorRunner {
 public:
  AdministratorResult run(const std::string& shellCommand) override {
    ProcessRequest request;
    request.executable = "/usr/bin/osascript";
    request.arguments = {"-e", administratorAppleScript(shellCommand)};
    ProcessDeadlines deadlines;
    deadlines.exit = 15min;
    auto result = runProcess(request, deadlines);
    // Both streams count as the script's output: anything on standard error keeps it from
    // reading as a bare "0".
    return interpretAppleScriptResult(result.exit, result.standardOutput + result.standardError);
  }
};

}  // namespace

std::shared_ptr<AdministratorRunner> systemAdministratorRunner() {
  static auto runner = std::make_shared<OsascriptAdministratorRunner>();
  return runner;
}

PrivilegedCommandStyle privilegedCommandStyle() { return PrivilegedCommandStyle::javaScriptForAutomation; }

}  // namespace corvane::platform
