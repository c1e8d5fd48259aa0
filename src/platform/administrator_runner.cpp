#include "platform/administrator_runner.h"

namespace corvane::platform {

std::string trimmedLauncherOutput(const std::string& output) {
  constexpr const char* kSpace = " \t\n\r\v\f";
  const auto first = output.find_first_not_of(kSpace);
  if (first == std::string::npos) return {};
  const auto last = output.find_last_not_of(kSpace);
  return output.substr(first, last - first + 1);
}

AdministratorResult interpretAppleScriptResult(const ProcessExit& exit, const std::string& output) {
  AdministratorResult result;
  result.output = trimmedLauncherOutput(output);
  result.exitCode = exit.exitCode;
  if (exit.succeeded() && result.output == "0") {
    result.outcome = AdministratorOutcome::succeeded;
  } else if (result.output == "-128") {
    result.outcome = AdministratorOutcome::cancelled;
  } else {
    result.outcome = AdministratorOutcome::failed;
  }
  return result;
}

AdministratorResult interpretShellLauncherResult(const ProcessExit& exit, const std::string& output) {
  AdministratorResult result;
  result.output = trimmedLauncherOutput(output);
  result.exitCode = exit.exitCode;
  if (exit.succeeded()) {
    result.outcome = AdministratorOutcome::succeeded;
  } else if (exit.exited() && exit.exitCode == 126) {
    result.outcome = AdministratorOutcome::cancelled;
  } else {
    result.outcome = AdministratorOutcome::failed;
  }
  return result;
}

}  // namespace corvane::platform
