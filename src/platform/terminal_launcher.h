// Opens a terminal window that runs one shell command, for the manual disk protection. macOS:
// NSAppleScript `tell application "Terminal"` ... `do script` with the command escaped for an
// AppleScript string. Linux: the first terminal emulator found (x-terminal-emulator,
// gnome-terminal, konsole, xfce4-terminal, xterm) running /bin/sh -c with the command.
//
// Error contract: never throws; nothing is reported back (the caller polls for the effect), a
// failure is logged.
#pragma once

#include <string>

namespace corvane::platform {

void openTerminalAndRun(const std::string& command);

}  // namespace corvane::platform
