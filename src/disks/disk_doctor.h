// What interrupted runs, updaters and forgotten disks leave behind on an external disk and
// beside the items moved from it, and the one safe repair of each. Examining changes nothing.
// A repair acts only on what this program can prove it made: a journal entry settles its own
// transfer, a rehearsal folder goes when it holds nothing but the probe's own objects, a kept
// original only when it equals the copy its link leads to, a folder chain only when empty.
// Leftovers nothing vouches for are named and left where they are.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "catalogue/migrated_app.h"
#include "disks/volumes_roots.h"
#include "engine/journal/migration_journal.h"

namespace corvane {

struct DoctorFinding {
  enum class Kind {
    interruptedTransfer,  // a journal entry to finish or undo
    unreadableJournal,    // an entry that cannot be read
    abandonedJournal,     // journal files of an entry never written whole
    orphanStaging,        // a staging folder no journal entry names
    orphanRehearsal,      // an access-rehearsal folder no journal entry names
    keptOriginal,         // an original kept beside its link, no journal entry naming it
    replacedLink,         // a record whose link was replaced by a real item (an updater)
    copyMissing,          // a record whose copy is gone
    unrecordedCopy,       // a copy with a link leading to it but no record
    unlinkedCopy,         // a copy with neither record nor link
    diskAbsent,           // a link into a disk that is not plugged in
    emptyChain,           // empty folders left in the disk's Directories/ tree
  };
  Kind kind = Kind::orphanStaging;
  std::string disk;
  // The object the finding is about, and the other place it involves (the link, the copy, the
  // disk to plug in), when there is one.
  std::string path;
  std::string other;
  bool fixable = false;
  // What it is and what a fix does (or what to do by hand), as a localization key and arguments.
  std::string key;
  std::vector<std::string> arguments;
  std::optional<MigrationJournalEntry> journal;
  std::optional<MigratedApp> record;
};

class DiskDoctor {
 public:
  struct Configuration {
    VolumesRoots roots = VolumesRoots::forThisSystem();
    // Folders whose links into volumes are checked for a disk that is not plugged in, with how
    // many levels below each are looked at.
    std::vector<std::pair<std::string, int>> linkPlaces;
    // Where an application's link may stand (its copy lies in <disk>/Applications).
    std::vector<std::string> applicationFolders;

    static Configuration forThisSystem();
  };

  explicit DiskDoctor(Configuration configuration);

  // Everything found on `disk` and beside the items recorded on it.
  std::vector<DoctorFinding> examineDisk(const std::string& disk) const;
  // Links in the configured places that lead into a volume that is not mounted.
  std::vector<DoctorFinding> examineAbsentDisks() const;

  struct Repair {
    bool fixed = false;
    std::string error;
    std::vector<std::string> leftInPlace;
  };
  // Re-checks the finding against the file system and repairs it; never throws. A replaced link
  // is repaired by migrating the new item at `path` to `disk` (its previous copy becomes a
  // version), which the front end runs as it runs any migration.
  Repair fix(const DoctorFinding& finding) const;

 private:
  Configuration configuration_;
};

}  // namespace corvane
