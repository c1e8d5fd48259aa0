#include "disks/fstab_commands.h"

#include <cstdio>

#include "platform/terminal_launcher.h"
#include "support/paths.h"
#include "support/shell_quote.h"
#include "support/uuid.h"

namespace corvane {
namespace {

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

// Backslashes doubled, then double quotes escaped: the inside of an AppleScript string.
std::string appleScriptQuoted(const std::string& text) {
  return replaceAll(replaceAll(text, "\\", "\\\\"), "\"", "\\\"");
}

}  // namespace

std::string fstabLine(const std::string& uuid, const std::string& volumePath, const std::string& fileSystemType,
                      const std::string& options, bool escapeControl) {
  std::string field;
  for (const char c : volumePath) {
    if (c == ' ') {
      field += "\\040";
    } else if (escapeControl && (c == '\t' || c == '\n' || c == '\\')) {
      char octal[5];
      std::snprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned char>(c));
      field += octal;
    } else {
      field += c;
    }
  }
  return "UUID=" + uuid + "    " + field + "    " + fileSystemType + "    " + options;
}

std::string manualProtectionCommand(const std::string& uuid, const std::string& line) {
  // A single quote inside the line would end the quoted text early.
  return "grep -q \"UUID=" + uuid + "\" /etc/fstab 2>/dev/null || echo '" + replaceAll(line, "'", "'\\''") +
         "' | sudo tee -a /etc/fstab";
}

std::string linuxManualProtectionCommand(const std::string& uuid, const std::string& line,
                                         const std::string& fstabPath) {
  const std::string table = shellQuote(fstabPath);
  return "grep -q \"UUID=" + uuid + "\" " + table + " 2>/dev/null || printf '%s\\n' " + shellQuote(line) +
         " | sudo tee -a " + table;
}

std::string macProtectionAppleScript(const std::string& fstabPath, const std::string& line) {
  // Escaped twice over: once for the echo's quotes, once more for the script's own quoting.
  const std::string safe = replaceAll(replaceAll(line, "'", "'\\''"), "'", "'\\''");
  const std::string& f = fstabPath;
  const std::string commands = "if [ -f " + f + " ]; then chflags nouchg " + f + "; fi" + "; " + "if [ -f " + f +
                               " ]; then cp " + f + " " + f + ".bak; fi" + "; " + "if [ ! -f " + f + " ]; then echo '" +
                               safe + "' | tee " + f + " >/dev/null; else echo '\\n" + safe + "' | tee -a " + f +
                               " >/dev/null; fi" + "; " + "chown root:wheel " + f + "; chmod 644 " + f;
  return "do shell script \"" + appleScriptQuoted(commands) + "\" with administrator privileges";
}

std::string macTerminalAppleScript(const std::string& command) { return platform::terminalAppleScript(command); }

std::string macGhostRemovalAppleScript(const std::string& path) {
  const std::string command = replaceAll("rm -rf \"" + path + "\"", "\"", "\\\"");
  return "do shell script \"" + command + "\" with administrator privileges";
}

std::string linuxProtectionCommand(const std::string& fstabPath, const std::string& line) {
  const std::string f = shellQuote(fstabPath);
  const std::string t = shellQuote(joinPath(parentPath(fstabPath), ".fstab.corvane-" + makeUuidString()));
  std::string command = "set -e; trap 'rm -f -- " + replaceAll(t, "'", "'\\''") + "' EXIT; ";
  command += "if [ -f " + f + " ]; then cp -p -- " + f + " " + shellQuote(fstabPath + ".bak") + "; cat -- " + f +
             " > " + t + "; if [ -n \"$(tail -c 1 -- " + f + ")\" ]; then echo >> " + t + "; fi; else : > " + t +
             "; fi; ";
  command += "printf '%s\\n' " + shellQuote(line) + " >> " + t + "; ";
  // Only a table that no longer parses is refused: findmnt also counts a disk that is not
  // plugged in as an error, and the user's other removable disks must not block this one.
  command += "if command -v findmnt >/dev/null 2>&1; then verdict=$(LC_ALL=C findmnt --verify --tab-file " + t +
             " 2>&1 || true); if printf '%s\\n' \"$verdict\" | grep -q '^[1-9][0-9]* parse error'; then printf '%s\\n' "
             "\"$verdict\" >&2; exit 65; fi; fi; ";
  command += "chmod 644 " + t + "; chown 0:0 " + t + "; mv -f -- " + t + " " + f + "; sync -- " +
             shellQuote(parentPath(fstabPath));
  return command;
}

std::string linuxGhostRemovalCommand(const std::string& path, const std::optional<std::pair<dev_t, ino_t>>& identity) {
  const std::string quoted = shellQuote(path);
  std::string check;
  if (identity) {
    check = "[ -d " + quoted + " ] && [ ! -L " + quoted + " ] && [ \"$(stat -c %d:%i -- " + quoted + ")\" = '" +
            std::to_string(identity->first) + ":" + std::to_string(identity->second) +
            "' ] || { echo 'The folder changed after it was shown; nothing was removed.' >&2; exit 3; }; ";
  }
  return check + "rm -rf --one-file-system -- " + quoted;
}

}  // namespace corvane
