// A transfer's intent, written on the external disk before the transfer changes anything and
// kept until its record is written: which way it goes, where from and to, the temporary names it
// uses and the identities it has taken. A run killed at any moment leaves an entry from which
// the next command can tell what was done and finish or undo it. While a process works on an
// entry it holds the entry's lock, so a living transfer is never mistaken for an interrupted one.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/manifest/migration_file_identity.h"
#include "platform/unique_fd.h"

namespace corvane {

enum class MigrationJournalDirection { migrate, back };

struct MigrationJournalEntry {
  // The UUID every temporary name of the transfer carries.
  std::string id;
  MigrationJournalDirection direction = MigrationJournalDirection::migrate;
  std::string disk;
  std::string name;
  // Where the data is read from and where it goes: the item and its copy when migrating, the
  // copy and the item's place when moving back.
  std::string source;
  std::string destination;
  bool retainOriginal = false;
  // The last step boundary passed (see MigrationJournal::Step).
  std::string step;
  std::string startedAt;
  std::optional<MigrationFileIdentity> sourceIdentity;
  std::optional<MigrationFileIdentity> stagingIdentity;
  std::optional<MigrationFileIdentity> payloadIdentity;

  // The item's own place and its copy's, whichever way the transfer goes.
  const std::string& itemPath() const { return direction == MigrationJournalDirection::migrate ? source : destination; }
  const std::string& copyPath() const { return direction == MigrationJournalDirection::migrate ? destination : source; }
  std::string stagingRoot() const;
  std::string payload() const;
  // The folder of the access rehearsal, beside the item's place.
  std::string rehearsal() const;
  // Where a migration's switch keeps the original until it is removed.
  std::string keptOriginal() const;
};

class MigrationJournal {
 public:
  // Step names, in the order a transfer passes them. A test may ask the program to stop itself
  // (SIGSTOP) right after a step was written by naming it in CORVANE_TEST_PAUSE_AT.
  struct Step {
    static constexpr const char* started = "started";
    static constexpr const char* rehearsed = "rehearsed";
    static constexpr const char* stagingCreated = "staging_created";
    static constexpr const char* copied = "copied";
    static constexpr const char* verified = "verified";
    static constexpr const char* flushed = "flushed";
    static constexpr const char* promoted = "promoted";
    static constexpr const char* switched = "switched";
    static constexpr const char* replacedRemoved = "replaced_removed";
    static constexpr const char* stagingRemoved = "staging_removed";
    static constexpr const char* recorded = "recorded";
  };

  // Nothing is written until open().
  MigrationJournal(std::string disk, MigrationJournalDirection direction, std::string name);
  MigrationJournal(const MigrationJournal&) = delete;
  MigrationJournal& operator=(const MigrationJournal&) = delete;

  const std::string& id() const { return entry_.id; }
  const MigrationJournalEntry& entry() const { return entry_; }
  bool isOpen() const { return lock_.get() >= 0; }

  // Writes the first entry, durably, and takes its lock. Throws on failure: a transfer that
  // cannot leave its intent on the disk does not start.
  void open(const std::string& source, const std::string& destination, bool retainOriginal,
            MigrationFileIdentity sourceIdentity);
  // Records that `step` was passed, with the identities taken so far.
  void mark(const char* step);
  void setStagingIdentity(MigrationFileIdentity identity) { entry_.stagingIdentity = identity; }
  void setPayloadIdentity(MigrationFileIdentity identity) { entry_.payloadIdentity = identity; }
  // The transfer and its record are complete (or nothing was changed): the entry goes.
  void close();

  static std::string directoryOf(const std::string& disk);

  // What a disk's journal holds; unreadable entries are named, never guessed at.
  struct Listing {
    std::vector<MigrationJournalEntry> entries;
    std::vector<std::string> unreadable;
  };
  static Listing list(const std::string& disk);

  // Files of entries that were never written whole or only half removed (a temporary copy, a
  // lock alone) whose process is gone. Paths, for reporting.
  static std::vector<std::string> abandonedFiles(const std::string& disk);
  // Removes them (each only while its entry's lock can be taken and no entry exists).
  static void removeAbandonedFiles(const std::string& disk);

  // The lock of an entry no living process holds, taken; nothing when it is held.
  static std::optional<platform::UniqueFd> claim(const std::string& disk, const std::string& id);
  // Removes an entry whose lock the caller holds.
  static void discard(const std::string& disk, const std::string& id, platform::UniqueFd& lock);
  // Writes `entry` over its file (the caller holds its lock).
  static void rewrite(const MigrationJournalEntry& entry);

  static std::string toJson(const MigrationJournalEntry& entry);
  // Throws on anything that is not a whole entry with a UUID, a known direction and absolute paths.
  static MigrationJournalEntry fromJson(const std::string& text);

 private:
  MigrationJournalEntry entry_;
  platform::UniqueFd lock_;
};

}  // namespace corvane
