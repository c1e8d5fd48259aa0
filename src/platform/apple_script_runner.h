// Runs an AppleScript text as the system's script component would and reports its error the way
// scripts see it: an error number and a message. macOS runs "/usr/bin/osascript -e SCRIPT" and
// reads osascript's complaint ("0:42: execution error: User canceled. (-128)"); that reading is
// portable so that it is tested everywhere. Linux never runs scripts and has no runner.
//
// Error contract: runAppleScript() never throws. When osascript cannot be started the script
// counts as not compiled, with the reason as its message.
#pragma once

#include <string>

#include "platform/process.h"

namespace corvane::platform {

struct AppleScriptResult {
  bool compiled = true;    // false: a syntax error, or the script component could not be started
  bool succeeded = false;  // compiled and ran without error
  int errorNumber = 0;     // the script's error number; -1 when it gave none
  std::string message;     // the script's error message; empty when it gave none
};

// macOS only.
AppleScriptResult runAppleScript(const std::string& source);

// What osascript's exit and standard error say about the run.
AppleScriptResult interpretOsascriptResult(const ProcessExit& exit, const std::string& standardError);

}  // namespace corvane::platform
