// Removal of the data that a verified switch replaced: only what the manifest recorded goes, and
// each entry is read again right before it goes, so nothing that appeared or was swapped in
// since the scan is lost.
#pragma once

#include <functional>
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

  // The tree at a directory as its check found it. Everything the manifest records was found
  // as recorded apart from its status-change time, so the manifest itself stands for it; only
  // the entries that may differ from their record (relocated links, sockets left out of the
  // copy) are kept as they were read.
  class PresentTree {
   public:
    // The entry found at `relativePath`; null for anything the check did not find.
    const MigrationEntry* find(const std::string& relativePath) const;

   private:
    friend class MigrationVerifiedRemoval;
    PresentTree(const MigrationManifest& manifest, const std::set<std::string>& inactiveSockets)
        : manifest_(manifest), inactiveSockets_(inactiveSockets) {}
    const MigrationManifest& manifest_;
    const std::set<std::string>& inactiveSockets_;
    MigrationManifest differing_;
  };

  // Walks the tree at `directory` and compares it with what it must be, each entry as it is
  // read: its root must be the recorded object ("error.migration_source_changed" with the
  // directory), anything unrecorded or of another kind throws "migration.safety.conflict",
  // anything changed or missing "error.migration_source_changed" with its path. `checking` is
  // told each entry read.
  static PresentTree readExpectedTree(const std::string& directory, const Expectations& expected,
                                      const std::function<void(const std::string&)>& checking);

  // Removes everything below the open directory `directory` (at `path`) that `present` records,
  // entry by entry, the branches side by side. With DirectoriesLater::yes the work stays on one
  // thread and the directories are left standing, emptied, and returned children first for an
  // administrator's rmdir.
  static std::vector<std::string> removeChildren(int directory, const std::string& path, const PresentTree& present,
                                                 DirectoriesLater directoriesLater);
};

}  // namespace corvane
