// Opens a terminal window that runs one shell command, for the manual disk protection. macOS:
// NSAppleScript `tell application "Terminal"` ... `do script` with the command escaped for an
// AppleScript string. Linux: the first terminal emulator found (x-terminal-emulator,
// gnome-terminal, konsole, xfce4-terminal, xterm) running /bin/sh -c with the command.
//
// Error contract: never throws; nothing is reported back (the caller polls for the effect), a
// failure is logged.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvane::platform {

void openTerminalAndRun(const std::string& command);

// The pieces, built portably so their exact form is tested everywhere.
// The script that has Terminal open a window running `command` (macOS).
std::string terminalAppleScript(const std::string& command);
// The first known emulator found in the directories of `searchPath` (a PATH value) and the
// arguments that have it run `command` through /bin/sh -c: the emulator's absolute path first.
// Absent when none is installed.
std::optional<std::vector<std::string>> terminalEmulatorCommand(const std::string& command,
                                                                const std::string& searchPath);

}  // namespace corvane::platform
