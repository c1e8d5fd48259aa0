// The command and script texts of disk protection and ghost cleanup, built apart from running
// them so that their exact form is tested on every system. Two styles: macOS writes AppleScript
// "do shell script ... with administrator privileges" texts; Linux writes one shell command for
// the administrator runner.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>

namespace corvane {

enum class FstabCommandStyle { appleScript, shell };

// True when `path` can stand in a file-table entry and in the commands that write it: no control
// characters (a line break or tab would split the entry) and no backslash (the table reads it as
// the start of an escape).
bool isWritableInFstab(const std::string& path);

// The one-line command a user can run by hand. macOS: "grep -q ... /etc/fstab || echo 'L' | sudo
// tee -a /etc/fstab". Linux writes the entry with printf, because the echo of dash would turn the
// entry's "\040" into a blank, and names `tablePath`.
std::string manualProtectionCommand(FstabCommandStyle style, const std::string& uuid, const std::string& entry,
                                    const std::string& tablePath);

// macOS: the four commands (unlock, backup, append, owner and mode) in one administrator script.
std::string appleScriptProtectionScript(const std::string& tablePath, const std::string& entry);

// Linux: keeps TABLE.bak, writes the old table and the entry to a temporary file beside it, checks
// that file with findmnt where findmnt exists, gives it mode 644 and owner root, renames it into
// place and flushes the directory. Any failing step leaves the old table as it was and removes
// the temporary file.
std::string shellProtectionCommand(const std::string& tablePath, const std::string& entry,
                                   const std::string& mountPath);

// macOS: "rm -rf" in double quotes. Double quotes do not neutralise $, ` or \ (nor a quote inside
// the path), so a path holding any of them gets no script at all.
std::optional<std::string> appleScriptGhostCleanupScript(const std::string& path);

// Linux: removes the tree without leaving its file system; with `identity` (device, inode) the
// command first checks, as root, that the path is still that directory and not a link.
std::string shellGhostCleanupCommand(const std::string& path,
                                     const std::optional<std::pair<dev_t, ino_t>>& identity = std::nullopt);

}  // namespace corvane
