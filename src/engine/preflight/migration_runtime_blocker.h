// One reason why an item cannot be moved right now: a live socket, a git file-system monitor,
// a socket whose state is unknown, a FIFO in use or a device file.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvane {

struct MigrationRuntimeBlocker {
  std::string key;  // "migration.preflight.socket", ".git_service", ".socket_unknown", ".fifo_busy", ".special"
  std::string relativePath;                 // the entry in the item
  std::vector<std::string> owners;          // sockets: names of the processes holding it
  std::optional<std::string> gitDirectory;  // git monitor sockets: the repository's git directory
  bool operator==(const MigrationRuntimeBlocker&) const = default;
};

}  // namespace corvane
