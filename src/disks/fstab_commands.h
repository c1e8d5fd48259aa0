// The texts behind disk protection and ghost-folder removal: the file-table line, the manual
// command, and the privileged scripts on each system. Built here, portably, so every exact text
// is tested on any system although each runs only on its own.
#pragma once

#include <string>

namespace corvane {

// The line: "UUID=" U, the mount path with each blank written "\040", the type and the options,
// separated by four spaces. `escapeControl` also writes tabs, line breaks and backslashes as
// octal escapes, as Linux's table format reads them.
std::string fstabLine(const std::string& uuid, const std::string& volumePath, const std::string& fileSystemType,
                      const std::string& options, bool escapeControl);

// grep -q "UUID=U" /etc/fstab 2>/dev/null || echo 'L' | sudo tee -a /etc/fstab
std::string manualProtectionCommand(const std::string& uuid, const std::string& line);

// macOS: the four commands (flags cleared, one backup, the line appended on a new line, owner
// and mode restored) with the line's single quotes escaped twice over, as an AppleScript that
// runs them with administrator privileges.
std::string macProtectionAppleScript(const std::string& fstabPath, const std::string& line);
// macOS: Terminal running `command`.
std::string macTerminalAppleScript(const std::string& command);
// macOS: the removal of a ghost folder as an AppleScript; the path is written inside double
// quotes, so callers refuse paths holding $, ` or \ first.
std::string macGhostRemovalAppleScript(const std::string& path);

// Linux: one shell command that keeps F.bak, writes the new table to a temporary file beside F,
// checks it with findmnt where that exists, renames it into place and flushes the directory;
// any failure leaves F as it was and removes the temporary file.
std::string linuxProtectionCommand(const std::string& fstabPath, const std::string& line);
std::string linuxGhostRemovalCommand(const std::string& path);

}  // namespace corvane
