// The texts behind disk protection and ghost-folder removal: the file-table line, the manual
// command, and the privileged scripts on each system. Built here, portably, so every exact text
// is tested on any system although each runs only on its own.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>

namespace corvane {

// The line: "UUID=" U, the mount path with each blank written "\040", the type and the options,
// separated by four spaces. `escapeControl` also writes tabs, line breaks and backslashes as
// octal escapes, as Linux's table format reads them.
std::string fstabLine(const std::string& uuid, const std::string& volumePath, const std::string& fileSystemType,
                      const std::string& options, bool escapeControl);

// grep -q "UUID=U" /etc/fstab 2>/dev/null || echo 'L' | sudo tee -a /etc/fstab
std::string manualProtectionCommand(const std::string& uuid, const std::string& line);
// Linux: the same with printf instead of echo, because the echo of dash (the /bin/sh the
// terminal runs) would turn the line's "\040" into a blank; and the table the program reads.
std::string linuxManualProtectionCommand(const std::string& uuid, const std::string& line,
                                         const std::string& fstabPath);

// macOS: the four commands (flags cleared, one backup, the line appended on a new line, owner
// and mode restored) with the line's single quotes escaped twice over, as an AppleScript that
// runs them with administrator privileges.
std::string macProtectionAppleScript(const std::string& fstabPath, const std::string& line);
// macOS: Terminal running `command`.
std::string macTerminalAppleScript(const std::string& command);
// macOS: the removal of a ghost folder as an AppleScript; the path is written inside double
// quotes, so callers refuse paths holding ", $, ` or \ first.
std::string macGhostRemovalAppleScript(const std::string& path);

// Linux: one shell command that keeps F.bak, writes the new table to a temporary file beside F,
// checks it with findmnt where that exists, renames it into place and flushes the directory;
// any failure leaves F as it was and removes the temporary file. Only findmnt's parse errors
// refuse the table: its other complaints are about devices and folders that are absent now
// (a disk with "nofail" that is not plugged in, or a device without a by-uuid link yet), which
// the table may name.
std::string linuxProtectionCommand(const std::string& fstabPath, const std::string& line);
// Linux: removes the tree without entering another file system mounted inside it. With
// `identity` (device, inode) the command first checks, as root, that the path is still that
// directory and not a link, so a swap while the dialog was open removes nothing.
std::string linuxGhostRemovalCommand(const std::string& path,
                                     const std::optional<std::pair<dev_t, ino_t>>& identity = std::nullopt);

}  // namespace corvane
