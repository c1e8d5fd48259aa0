// Settles what an interrupted transfer left, from its journal entry and what the file system
// shows now (never from the entry's step alone: a run can die between a change and its line).
// A switch that was made is finished: the record is written or removed, and whatever the switch
// replaced goes once it is proven equal to the data in place. A switch that was not made is
// undone: the staging folder, the rehearsal folder and a promoted copy go after their
// identities are checked, and the item stays as it was. Anything else is left in place and named.
#pragma once

#include <string>
#include <vector>

#include "engine/journal/migration_journal.h"

namespace corvane {

struct MigrationRecovery {
  enum class Kind { finish, rollBack, busy, stuck };
  Kind kind = Kind::stuck;
  // Why it is stuck: a localization key and its path.
  std::string reasonKey;
  std::string reasonPath;
};

class MigrationJournalRecovery {
 public:
  // What resolving the entry would do; changes nothing.
  static MigrationRecovery judge(const MigrationJournalEntry& entry);

  struct Outcome {
    MigrationJournalEntry entry;
    MigrationRecovery recovery;
    bool resolved = false;
    // Objects deliberately left where they are (a kept original that differs from the copy, an
    // original the user asked to keep), and the error that stopped a resolution.
    std::vector<std::string> leftInPlace;
    std::string error;
  };

  // Claims the entry (a living process holding it makes it busy), judges it again and settles
  // it; the entry goes when everything it names is settled.
  static Outcome resolve(const MigrationJournalEntry& entry);
  // Every readable entry of the disk's journal, oldest first.
  static std::vector<Outcome> resolveAll(const std::string& disk);

  // The folder an access rehearsal made holds only its own empty folders and link; such a
  // folder goes, anything holding more stays. True when it is gone (or was never there).
  static bool removeRehearsal(const std::string& path);

  // Whether everything `original` holds (its links written relative to `originalPlace`) is in
  // `copy` too, compared byte for byte with the copy read from the medium; the copy may hold
  // more. That is what deleting `original` needs: a deletion stopped half way leaves a part of
  // the tree, and files added through the link since the switch are no reason to keep it.
  static bool holdsAllOf(const std::string& copy, const std::string& original, const std::string& originalPlace);
};

}  // namespace corvane
