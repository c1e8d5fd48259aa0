// Runs one shell command text with administrator rights after the system's own authorization
// dialog: osascript "with administrator privileges" on macOS, pkexec /bin/sh -c on Linux (or the
// launcher CORVANE_ADMINISTRATOR_LAUNCHER names, which takes the same arguments). The
// interface lets tests put a runner in its place that executes the same text.
//
// Error contract: run() throws PosixError when the launcher cannot be started; every other
// result, a dismissed dialog included, is reported in AdministratorResult.
#pragma once

#include <memory>
#include <string>

#include "platform/process.h"

namespace corvane::platform {

enum class AdministratorOutcome { succeeded, cancelled, failed };

struct AdministratorResult {
  AdministratorOutcome outcome = AdministratorOutcome::failed;
  // What the launcher printed, trimmed; the error number on macOS, the command's output on Linux.
  std::string output;
  // The launcher's exit status; -1 when it was ended by a signal.
  int exitCode = -1;
};

class AdministratorRunner {
 public:
  virtual ~AdministratorRunner() = default;
  virtual AdministratorResult run(const std::string& shellCommand) = 0;
};

// The system's runner for this platform.
std::shared_ptr<AdministratorRunner> systemAdministratorRunner();

// How privileged file operations are written in a command text on this platform: macOS runs
// JavaScript for Automation through osascript; Linux runs Corvane's own helper mode.
enum class PrivilegedCommandStyle { javaScriptForAutomation, corvaneHelper };
PrivilegedCommandStyle privilegedCommandStyle();

// Reading a launcher's result, shared by the platform runners and by test runners.
// osascript: success only for exit status 0 and output exactly "0" once trimmed; "-128" is the
// dismissed dialog.
AdministratorResult interpretAppleScriptResult(const ProcessExit& exit, const std::string& output);
// pkexec and /bin/sh: exit status 0 succeeds; 126 means the dialog was dismissed.
AdministratorResult interpretShellLauncherResult(const ProcessExit& exit, const std::string& output);

// White space and line breaks removed from both ends.
std::string trimmedLauncherOutput(const std::string& output);

}  // namespace corvane::platform
