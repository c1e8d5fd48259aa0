// What a destination disk must be before anything is created on it: an existing folder that is
// the top of a mounted file system other than the item's. An unplugged disk leaves an empty
// folder at its mount path; a copy written there lands on the internal disk and is hidden the
// moment the disk comes back. An item on the disk itself, or one holding another mount, can
// only be undone by hand once moved.
#pragma once

#include <string>
#include <vector>

namespace corvane {

class MigrationDestinationCheck {
 public:
  // `mountPoints` is the system's mount table (platform::mountPoints). Throws MigrationIssue:
  // "migration.preflight.destination_missing", "migration.preflight.destination_not_volume"
  // (naming the disk), "migration.preflight.source_on_destination",
  // "migration.preflight.destination_same_volume" (naming the item) or
  // "migration.preflight.holds_mount_point" (naming the mount inside the item).
  static void require(const std::string& source, const std::string& disk, const std::vector<std::string>& mountPoints);
};

}  // namespace corvane
