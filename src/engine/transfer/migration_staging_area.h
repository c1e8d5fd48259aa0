// The private directory beside a destination in which a copy is built. It records every object
// it creates the moment it exists, and removes only what it recorded, after proving that its
// root is still the directory it made.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "engine/manifest/migration_entry.h"
#include "engine/manifest/migration_file_identity.h"
#include "engine/manifest/migration_manifest_positions.h"
#include "engine/transfer/migration_owned_tree.h"
#include "platform/unique_fd.h"

namespace corvane {

enum class RecordScope { anyPath, onlyKnown };

class MigrationStagingArea {
 public:
  // Makes `<parent>/.corvane-transfer-<UUID>` (mode 0700) for a copy of `source` that will be
  // named like `target`. Throws "error.migration_source_changed" when the source is gone. Given
  // the source's manifest (which must outlive the area), the records of the copy's entries are
  // kept in an array beside it rather than under paths of their own.
  // `transferID` names the folder (a new UUID when empty), so a journal can name it in advance.
  MigrationStagingArea(const std::string& source, const std::string& target, const std::string& parent,
                       const MigrationManifest* manifest = nullptr, const std::string& transferID = {});

  const std::string& root() const { return root_; }
  const std::string& payload() const { return payload_; }
  const std::string& source() const { return source_; }
  // The identity recorded for the object at `path`, when it was recorded as created here.
  std::optional<MigrationFileIdentity> recordedIdentity(const std::string& path) const;

  // Records `path` (and every ancestor up to the root) as created by this operation. A path
  // recorded earlier that now is another object stops with "migration.safety.conflict". Paths
  // outside the root are ignored; with `onlyKnown` only earlier records are refreshed.
  void recordCreated(const std::string& path, RecordScope scope = RecordScope::anyPath);

  // After a copy stopped part of the way: the directories it made changed as it created entries
  // in them after they were recorded, so their records are brought up to date (each must still
  // be the same object). Files keep their records: a file changed since is not ours to delete.
  void refreshDirectories();

  // After verification rebuilt the entry at `path` (below the payload): the new object takes
  // the old one's record, and a rebuilt directory's old records below it are dropped. Its
  // folder must still be the recorded one ("migration.safety.conflict" otherwise).
  void recordRepaired(const std::string& path);

  // Removes the (by now empty) staging directory after a successful switch.
  void finish();
  // Removes everything recorded after a roll-back.
  void discardAfterRollback();
  // After a restore the payload's name holds what came back from the exchange (the link the
  // program had left): it must be that link, and it is recorded so it can be removed.
  void receivedLinkAfterRestore(const MigrationEntry& link);

 private:
  void requireRoot() const;
  std::string relativeToRoot(const std::string& path) const;
  void recordMissingAncestors(const std::string& relative);
  void record(const std::string& relative, RecordScope scope);

  // The records, by path relative to the root: an entry of the payload that the manifest names
  // has its slot by position, anything else a map entry.
  using Record = MigrationOwnedTree::Record;
  std::optional<std::size_t> positionOf(std::string_view relative) const;
  const Record* recorded(const std::string& relative) const;
  void store(const std::string& relative, const MigrationEntry& entry);
  void forget(const std::string& relative);
  void forgetWithin(const std::string& relative);

  std::string root_;
  std::string payload_;
  std::string source_;
  MigrationFileIdentity sourceIdentity_;
  MigrationFileIdentity rootIdentity_;
  platform::UniqueFd rootDescriptor_;
  std::string payloadKey_;  // the payload's path relative to the root
  MigrationManifestPositions positions_;
  std::vector<Record> payloadRecords_;
  std::map<std::string, Record, std::less<>> otherRecords_;
};

}  // namespace corvane
