// Checks made before a link that this program installed is replaced on the way back (moving an
// item back, restoring a version): the path must still be that link, pointing where it did.
#pragma once

#include <optional>
#include <string>

#include "engine/manifest/migration_entry.h"

namespace corvane {

class MigrationFileSafety {
 public:
  // Returns the link's entry when `source` is still a symbolic link that resolves to where
  // `target` resolves. Throws "migration.preflight.restore_not_link" (absent, or not a link),
  // "migration.preflight.restore_wrong_target" (it leads elsewhere) or
  // "error.migration_restore_conflict" (it changed while being checked, or it is not the link
  // `expected` describes: another object or another text).
  static MigrationEntry requireRestoreLink(const std::string& source, const std::string& target,
                                           const std::optional<MigrationEntry>& expected = std::nullopt);
};

}  // namespace corvane
