#include "disks/fstab_commands.h"

#include <algorithm>

#include "support/apple_script.h"
#include "support/shell_quote.h"

namespace corvane {
namespace {

// Ends the single-quoted text, adds an escaped quote and opens a new single-quoted text.
std::string singleQuoteEscaped(const std::string& text) {
  std::string escaped;
  for (char c : text) {
    if (c == '\'')
      escaped += "'\\''";
    else
      escaped.push_back(c);
  }
  return escaped;
}

std::string administratorScript(const std::string& shellCommand) {
  return "do shell script \"" + appleScriptQuoteEscape(shellCommand) + "\" with administrator privileges";
}

std::string parentDirectory(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool isWritableInFstab(const std::string& path) {
  return std::none_of(path.begin(), path.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F || c == '\\';
  });
}

std::string manualProtectionCommand(FstabCommandStyle style, const std::string& uuid, const std::string& entry,
                                    const std::string& tablePath) {
  if (style == FstabCommandStyle::appleScript) {
    return "grep -q \"UUID=" + uuid + "\" /etc/fstab 2>/dev/null || echo '" + singleQuoteEscaped(entry) +
           "' | sudo tee -a /etc/fstab";
  }
  const std::string table = shellQuote(tablePath);
  return "grep -q \"UUID=" + uuid + "\" " + table + " 2>/dev/null || printf '%s\\n' '" + singleQuoteEscaped(entry) +
         "' | sudo tee -a " + table;
}

std::string appleScriptProtectionScript(const std::string& tablePath, const std::string& entry) {
  // The quote escaping is applied twice on purpose; the entries written so far depend on it.
  const std::string line = singleQuoteEscaped(singleQuoteEscaped(entry));
  const std::string& f = tablePath;
  const std::string commands[] = {
      "if [ -f " + f + " ]; then chflags nouchg " + f + "; fi",
      "if [ -f " + f + " ]; then cp " + f + " " + f + ".bak; fi",
      "if [ ! -f " + f + " ]; then echo '" + line + "' | tee " + f + " >/dev/null; else echo '\\n" + line +
          "' | tee -a " + f + " >/dev/null; fi",
      "chown root:wheel " + f + "; chmod 644 " + f,
  };
  std::string joined;
  for (const auto& command : commands) joined += (joined.empty() ? "" : "; ") + command;
  return administratorScript(joined);
}

std::string shellProtectionCommand(const std::string& tablePath, const std::string& entry,
                                   const std::string& mountPath) {
  // Every value is in a variable once, quoted; the steps only name the variables. The trap
  // removes the temporary file whatever ends the command (after the rename it is gone already).
  return "F=" + shellQuote(tablePath) + "; D=" + shellQuote(parentDirectory(tablePath)) + "; E=" + shellQuote(entry) +
         "; P=" + shellQuote(mountPath) +
         "; [ ! -L \"$F\" ] || { echo \"$F is a symbolic link\" >&2; exit 1; }"
         "; T=$(mktemp -- \"$F.corvane-XXXXXX\") || exit 1"
         "; trap 'rm -f -- \"$T\"' EXIT"
         "; { [ ! -e \"$F\" ] || cp -p -- \"$F\" \"$F.bak\"; }"
         " && { if [ -e \"$F\" ]; then cat -- \"$F\" && if [ -n \"$(tail -c 1 -- \"$F\")\" ]; then echo; fi; fi"
         " && printf '%s\\n' \"$E\"; } > \"$T\""
         " && { ! command -v findmnt >/dev/null 2>&1 || findmnt --verify --tab-file \"$T\" --target \"$P\"; }"
         " && chmod 644 \"$T\" && chown 0:0 \"$T\" && mv -f -- \"$T\" \"$F\" && sync -- \"$D\"";
}

std::optional<std::string> appleScriptGhostCleanupScript(const std::string& path) {
  if (path.find_first_of("\"$`\\") != std::string::npos) return std::nullopt;
  std::string command;
  for (char c : "rm -rf \"" + path + "\"") {
    if (c == '"') command.push_back('\\');
    command.push_back(c);
  }
  return "do shell script \"" + command + "\" with administrator privileges";
}

std::string shellGhostCleanupCommand(const std::string& path, const std::optional<std::pair<dev_t, ino_t>>& identity) {
  const std::string quoted = shellQuote(path);
  std::string command;
  if (identity) {
    command = "[ -d " + quoted + " ] && [ ! -L " + quoted + " ] && [ \"$(stat -c %d:%i -- " + quoted + ")\" = '" +
              std::to_string(identity->first) + ":" + std::to_string(identity->second) +
              "' ] || { echo 'The directory changed after it was shown; nothing was removed.' >&2; exit 3; }; ";
  }
  // A volume mounted somewhere inside the leftover folder is another disk: it is not entered.
  return command + "rm -rf --one-file-system -- " + quoted;
}

}  // namespace corvane
