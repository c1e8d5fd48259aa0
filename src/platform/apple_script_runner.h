// Runs an AppleScript text as the system's script component would and reports its error the way
// scripts see it: an error number and message. macOS runs "/usr/bin/osascript -e SCRIPT" and
// reads osascript's complaint ("0:42: execution error: User canceled. (-128)"); the reading is
// portable so that it is tested everywhere. There is no Linux runner: Linux never runs scripts.
//
// Error contract: runAppleScript() throws PosixError when osascript cannot be started; every
// script failure, one that does not compile included, is reported in the outcome.
#pragma once

#include <optional>
#include <string>

#include "platform/process.h"

namespace corvane::platform {

struct AppleScriptOutcome {
  bool succeeded = false;
  bool compiled = true;  // false for a syntax error: the script never ran
  std::optional<int> errorNumber;
  std::optional<std::string> errorMessage;
};

// macOS only.
AppleScriptOutcome runAppleScript(const std::string& source);

// What osascript's exit and standard error say about the run.
AppleScriptOutcome interpretOsascriptResult(const ProcessExit& exit, const std::string& standardError);

}  // namespace corvane::platform
