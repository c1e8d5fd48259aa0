// The texts of the privileged file operations that MigrationAccess hands to the administrator
// runner: the exchange (checked or rehearsed), one file-manager operation, the rehearsal and the
// removal of emptied directories. On macOS they run JavaScript for Automation through
// osascript; on Linux they run Corvane's own helper mode. Both forms are built here.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/administrator_runner.h"

namespace corvane {

enum class ExchangeCheck {
  // Re-reads the identities of both objects and of their directory inside the privileged
  // process, then swaps once.
  checked,
  // Swaps and swaps back, checking nothing: the rehearsal that proves the swap is possible.
  rehearsal,
};

// File-manager selectors that foundationOperation may run.
inline constexpr const char* kCreateSymbolicLinkSelector = "createSymbolicLinkAtPathWithDestinationPathError";
inline constexpr const char* kRemoveItemSelector = "removeItemAtPathError";

class MigrationPrivilegedCommands {
 public:
  // The platform's style; the helper is this very executable.
  static MigrationPrivilegedCommands forThisSystem();
  MigrationPrivilegedCommands(platform::PrivilegedCommandStyle style, std::string helperExecutable);

  platform::PrivilegedCommandStyle style() const { return style_; }

  // The JavaScript-for-Automation exchange. The checked form reads the three identities now
  // (a missing path throws platform::PosixError ENOENT with that path).
  static std::string exchangeScript(const std::string& first, const std::string& second, ExchangeCheck check);
  static std::string foundationScript(const std::string& selector, const std::string& path,
                                      const std::optional<std::string>& destination);

  // Shell command texts.
  std::string exchangeCommand(const std::string& first, const std::string& second, ExchangeCheck check) const;
  std::string foundationCommand(const std::string& selector, const std::string& path,
                                const std::optional<std::string>& destination) const;
  // Creates the probe directory (mode 700) with its removal trapped on exit, then a directory,
  // a rename, a link to `source` and the rehearsed exchange inside it.
  std::string rehearsalCommand(const std::string& probe, const std::string& source) const;
  // "/bin/rmdir" over the directories in the order given (children before their parents), as
  // few commands as fit: one command text stays below `limit` bytes, since a launcher passes it
  // as a single argument (Linux refuses one longer than 128 KiB).
  static constexpr std::size_t kCommandLimit = 64 * 1024;
  static std::vector<std::string> removeDirectoriesCommands(const std::vector<std::string>& directories,
                                                            std::size_t limit = kCommandLimit);

 private:
  platform::PrivilegedCommandStyle style_;
  std::string helperExecutable_;
};

}  // namespace corvane
