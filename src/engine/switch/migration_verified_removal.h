// Removal of the data that a verified switch replaced: only what the manifest recorded goes, and
// each entry is read again right before it goes, so nothing that appeared or was swapped in
// since the scan is lost.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "engine/manifest/migration_entry.h"

namespace corvane {

class MigrationVerifiedRemoval {
 public:
  struct Expectations {
    const MigrationManifest& manifest;
    const std::set<std::string>& inactiveSockets;
    const std::map<std::string, std::string>& relocatedLinks;
  };
  enum class DirectoriesLater { no, yes };

  // Removing one name of a hard-link group, and renaming the root, move the status-change time
  // of what stays; everything else must be as recorded.
  static bool sameApartFromChangeTime(const MigrationEntry& a, const MigrationEntry& b);

  // Compares the tree at `directory` as it is now (`present`) with what it must be; throws
  // "migration.safety.conflict" on the first difference.
  static void requireExpectedTree(const std::string& directory, const MigrationManifest& present,
                                  const Expectations& expected);

  // Removes everything below the open directory `directory` (at `path`) that `present` records,
  // entry by entry, the branches side by side. With DirectoriesLater::yes the work stays on one
  // thread and the directories are left standing, emptied, and returned children first for an
  // administrator's rmdir.
  static std::vector<std::string> removeChildren(int directory, const std::string& path,
                                                 const MigrationManifest& present, DirectoriesLater directoriesLater);
};

}  // namespace corvane
