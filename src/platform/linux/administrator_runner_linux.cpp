#include <chrono>
#include <cstdlib>

#include "platform/administrator_runner.h"

namespace corvane::platform {
namespace {

using namespace std::chrono_literals;

// pkexec shows the desktop's authorization dialog and runs the command as root; it exits with
// 126 when the dialog is dismissed or the password refused.
class PkexecAdministratorRunner final : public AdministratorRunner {
 public:
  AdministratorResult run(const std::string& shellCommand) override {
    ProcessRequest request;
    request.executable = launcher();
    request.arguments = {"/bin/sh", "-c", shellCommand};
    ProcessDeadlines deadlines;
    // Someone has to read the dialog and type a password.
    deadlines.exit = 15min;
    auto result = runProcess(request, deadlines);
    return interpretShellLauncherResult(result.exit, result.standardOutput + result.standardError);
  }

 private:
  // Systems without a polkit agent (and the tests of the binary) name another launcher that
  // takes the same arguments and exit statuses; it runs with the user's own rights until it
  // asks for more, so the variable grants nothing by itself.
  static std::string launcher() {
    const char* chosen = std::getenv("CORVANE_ADMINISTRATOR_LAUNCHER");
    return chosen != nullptr && chosen[0] == '/' ? chosen : "/usr/bin/pkexec";
  }
};

}  // namespace

std::shared_ptr<AdministratorRunner> systemAdministratorRunner() {
  static auto runner = std::make_shared<PkexecAdministratorRunner>();
  return runner;
}

PrivilegedCommandStyle privilegedCommandStyle() { return PrivilegedCommandStyle::corvaneHelper; }

}  // namespace corvane::platform
