// How much one item's copy moves: bytes (each file paid once, however many hard links name
// it), entries (all but the sockets left out), and the byte total counting every link.
#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "engine/manifest/migration_entry.h"

namespace corvane {

struct MigrationCopyWorkload {
  std::int64_t bytes = 0;
  std::int64_t entries = 0;
  std::int64_t totalBytes = 0;

  MigrationCopyWorkload() = default;
  MigrationCopyWorkload(const MigrationManifest& manifest, const std::set<std::string>& inactiveSockets);
};

}  // namespace corvane
