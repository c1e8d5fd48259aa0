// Checks made before this program acts on what a record names: a link it installed must still
// be that link, pointing where it did, an item on an external disk must really lie on it, and no
// other operation may be working on the item.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/manifest/migration_entry.h"
#include "platform/unique_fd.h"

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

  // A record is read from a disk anyone can write to. Returns the disk (standardized) that
  // `path` lies strictly inside, with every folder from that disk down to the path's parent a
  // real folder, never a link; the path itself may be anything. Throws `refusal` (the key, with
  // the path) otherwise. The same holds for a support file inside the home folder.
  static std::string requireInsideDisk(const std::string& path, const std::vector<std::string>& disks,
                                       const std::string& refusal = "migration.safety.outside_disk");

  // Claims the item at `path` for this operation until `holder` is closed. Another operation,
  // in this process or another, that holds it gives "migration.transfer.item_busy".
  static void claimItem(const std::string& path, platform::UniqueFd& holder);

  // A record's path is read as written. Throws "migration.safety.indefinite_path" (with the path)
  // when it is relative, which would make it name a place under whatever folder the program
  // runs in, or holds a "." or ".." component, which leaves open which place it means.
  static void requireDefinitePath(const std::string& path);

  // Whatever removes, moves or replaces the record's `target` on `disk` would take along what
  // lies inside it. Throws "migration.safety.holds_other_items" (with the target) when another
  // of the disk's records (any but `ownId`) names a target inside it, and
  // "migration.safety.holds_transfer" when it is, lies in or holds a transfer's staging folder
  // (a transfer under way there, or one interrupted, whose item no record names yet).
  static void requireNoOtherItemInside(const std::string& target, const std::string& disk, const std::string& ownId);
};

}  // namespace corvane
