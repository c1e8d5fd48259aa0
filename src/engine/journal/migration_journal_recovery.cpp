#include "engine/journal/migration_journal_recovery.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "catalogue/app_manager.h"
#include "catalogue/reference_date.h"
#include "engine/manifest/migration_link_plan.h"
#include "engine/migration_failure.h"
#include "engine/migration_issue.h"
#include "engine/switch/migration_file_safety.h"
#include "engine/verify/migration_integrity_verifier.h"
#include "platform/posix_error.h"
#include "platform/tree_removal.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"
#include "support/uuid.h"

namespace corvane {
namespace {

using Kind = MigrationEntry::Kind;
using Direction = MigrationJournalDirection;

std::optional<MigrationEntry> look(const std::string& path) { return MigrationEntry::read(path, AT_FDCWD); }

bool is(const std::optional<MigrationEntry>& entry, const std::optional<MigrationFileIdentity>& identity) {
  return entry && identity && entry->identity() == *identity;
}

bool isLinkTo(const std::optional<MigrationEntry>& entry, const std::string& target) {
  return entry && entry->kind == Kind::symbolicLink && entry->link == target;
}

MigrationRecovery stuck(std::string key, std::string path) {
  return {MigrationRecovery::Kind::stuck, std::move(key), std::move(path)};
}

MigrationRecovery judgeMigration(const MigrationJournalEntry& entry) {
  const auto item = look(entry.source);
  const auto copy = look(entry.destination);
  if (isLinkTo(item, entry.destination)) {
    if (copy && copy->kind != Kind::symbolicLink &&
        (!entry.payloadIdentity || copy->identity() == *entry.payloadIdentity)) {
      return {MigrationRecovery::Kind::finish, {}, {}};
    }
    return stuck("recovery.copy_missing", entry.destination);
  }
  // Not switched: the item must still be the object the transfer read, or nothing it made can
  // be told apart from what the user put there since.
  if (item && item->kind != Kind::symbolicLink && is(item, entry.sourceIdentity))
    return {MigrationRecovery::Kind::rollBack, {}, {}};
  return stuck("recovery.item_replaced", entry.source);
}

MigrationRecovery judgeMoveBack(const MigrationJournalEntry& entry) {
  const auto place = look(entry.destination);
  if (place && place->kind == Kind::symbolicLink) return {MigrationRecovery::Kind::rollBack, {}, {}};
  if (place && is(place, entry.payloadIdentity)) return {MigrationRecovery::Kind::finish, {}, {}};
  return stuck("recovery.item_replaced", entry.destination);
}

// The staging folder is the program's own (mode 0700, named by the transfer): it goes whole once
// it is proven to be the folder made. One made just before a kill, before its identity was
// written, can only be empty.
void removeStaging(const MigrationJournalEntry& entry) {
  const std::string root = entry.stagingRoot();
  const auto staging = look(root);
  if (!staging) return;
  if (staging->kind == Kind::directory && is(staging, entry.stagingIdentity)) {
    platform::removeTreeBelow(parentPath(root), root);
  } else if (staging->kind != Kind::directory || ::rmdir(root.c_str()) != 0) {
    throw MigrationIssue("migration.safety.conflict", root);
  }
}

void requireRehearsalGone(const MigrationJournalEntry& entry) {
  if (!MigrationJournalRecovery::removeRehearsal(entry.rehearsal()))
    throw MigrationIssue("migration.safety.conflict", entry.rehearsal());
}

// Whatever the switch replaced goes only when it is the object read before and everything it
// holds is in the data now in place; otherwise it stays and is named.
void removeReplaced(const std::string& replaced, const std::optional<MigrationFileIdentity>& identity,
                    const std::string& placeForLinks, const std::string& inPlace, const std::string& removalRoot,
                    MigrationJournalRecovery::Outcome& outcome) {
  const auto entry = look(replaced);
  if (!entry) return;
  if (entry->kind == Kind::symbolicLink || !is(entry, identity) ||
      !MigrationJournalRecovery::holdsAllOf(inPlace, replaced, placeForLinks)) {
    outcome.leftInPlace.push_back(replaced);
    return;
  }
  platform::removeTreeBelow(removalRoot, replaced);
}

bool isApplicationPath(const std::string& path) { return path.ends_with(".app"); }

void writeRecord(const MigrationJournalEntry& entry) {
  AppManager::rewriteRecordFile(entry.disk, {}, [&](std::vector<MigratedApp>& apps) {
    const bool known = std::any_of(apps.begin(), apps.end(), [&](const MigratedApp& app) {
      return standardizePath(app.originalPath) == entry.source;
    });
    if (known) return;
    MigratedApp app;
    app.id = makeUuidString();
    app.appName = entry.name.empty() ? lastComponent(entry.source) : entry.name;
    app.originalPath = entry.source;
    app.targetPath = entry.destination;
    app.migratedDate = ReferenceDate::now();
    app.itemType = isApplicationPath(entry.source) ? MigratedItemType::application : MigratedItemType::directory;
    apps.push_back(app);
  });
}

void dropRecord(const MigrationJournalEntry& entry) {
  AppManager::rewriteRecordFile(entry.disk, {}, [&](std::vector<MigratedApp>& apps) {
    std::erase_if(apps, [&](const MigratedApp& app) {
      return standardizePath(app.originalPath) == entry.destination && standardizePath(app.targetPath) == entry.source;
    });
  });
}

void finishMigration(const MigrationJournalEntry& entry, MigrationJournalRecovery::Outcome& outcome) {
  const std::string kept = entry.keptOriginal();
  if (entry.retainOriginal) {
    if (look(kept)) outcome.leftInPlace.push_back(kept);
  } else {
    removeReplaced(kept, entry.sourceIdentity, entry.source, entry.destination, parentPath(entry.source), outcome);
  }
  removeStaging(entry);
  requireRehearsalGone(entry);
  writeRecord(entry);
}

// The folders a migration made for the copy's place go again when empty, as an interrupted
// run would have removed them itself; the disk's own top folders stay.
void removeEmptyParents(const MigrationJournalEntry& entry) {
  const std::set<std::string> tops{joinPath(entry.disk, "Directories"), joinPath(entry.disk, "Applications")};
  for (std::string folder = parentPath(entry.destination);
       folder.size() > entry.disk.size() && folder.starts_with(entry.disk + "/") && !tops.count(folder);
       folder = parentPath(folder)) {
    if (::rmdir(folder.c_str()) != 0) break;
  }
}

void rollBackMigration(const MigrationJournalEntry& entry) {
  // A link made for the exchange but never exchanged.
  const std::string kept = entry.keptOriginal();
  if (isLinkTo(look(kept), entry.destination) && ::unlink(kept.c_str()) != 0) platform::throwErrno(kept);
  const auto copy = look(entry.destination);
  if (copy && copy->kind != Kind::symbolicLink && is(copy, entry.payloadIdentity))
    platform::removeTreeBelow(parentPath(entry.destination), entry.destination);
  removeStaging(entry);
  requireRehearsalGone(entry);
  removeEmptyParents(entry);
}

void finishMoveBack(const MigrationJournalEntry& entry, MigrationJournalRecovery::Outcome& outcome) {
  removeStaging(entry);
  requireRehearsalGone(entry);
  if (entry.retainOriginal) {
    if (look(entry.source)) outcome.leftInPlace.push_back(entry.source);
  } else {
    removeReplaced(entry.source, entry.sourceIdentity, entry.source, entry.destination, entry.disk, outcome);
  }
  dropRecord(entry);
}

void rollBackMoveBack(const MigrationJournalEntry& entry) {
  removeStaging(entry);
  requireRehearsalGone(entry);
}

}  // namespace

MigrationRecovery MigrationJournalRecovery::judge(const MigrationJournalEntry& entry) {
  // An entry is read from a disk anyone can write to: what it calls the copy must lie on that
  // disk, reached through real folders, or nothing it names is touched.
  try {
    MigrationFileSafety::requireInsideDisk(entry.copyPath(), {entry.disk});
  } catch (const MigrationIssue&) {
    return stuck("migration.safety.outside_disk", entry.copyPath());
  }
  try {
    return entry.direction == Direction::migrate ? judgeMigration(entry) : judgeMoveBack(entry);
  } catch (const std::exception&) {
    return stuck("recovery.unreadable", entry.source);
  }
}

MigrationJournalRecovery::Outcome MigrationJournalRecovery::resolve(const MigrationJournalEntry& entry) {
  Outcome outcome;
  outcome.entry = entry;
  auto lock = MigrationJournal::claim(entry.disk, entry.id);
  if (!lock) {
    outcome.recovery.kind = MigrationRecovery::Kind::busy;
    return outcome;
  }
  outcome.recovery = judge(entry);
  try {
    const bool migrating = entry.direction == Direction::migrate;
    switch (outcome.recovery.kind) {
      case MigrationRecovery::Kind::finish:
        migrating ? finishMigration(entry, outcome) : finishMoveBack(entry, outcome);
        break;
      case MigrationRecovery::Kind::rollBack:
        migrating ? rollBackMigration(entry) : rollBackMoveBack(entry);
        break;
      case MigrationRecovery::Kind::busy:
      case MigrationRecovery::Kind::stuck:
        return outcome;
    }
    MigrationJournal::discard(entry.disk, entry.id, *lock);
    outcome.resolved = true;
    logInfo("journal entry " + entry.id + " for " + entry.name + " resolved");
  } catch (...) {
    outcome.error = migrationErrorDescription(std::current_exception());
    logWarning("journal entry " + entry.id + " stays: " + outcome.error);
  }
  return outcome;
}

std::vector<MigrationJournalRecovery::Outcome> MigrationJournalRecovery::resolveAll(const std::string& disk) {
  std::vector<Outcome> outcomes;
  MigrationJournal::removeAbandonedFiles(disk);
  auto listing = MigrationJournal::list(disk);
  std::sort(listing.entries.begin(), listing.entries.end(),
            [](const auto& a, const auto& b) { return a.startedAt < b.startedAt; });
  for (const auto& entry : listing.entries) outcomes.push_back(resolve(entry));
  return outcomes;
}

bool MigrationJournalRecovery::removeRehearsal(const std::string& path) {
  const auto folder = look(path);
  if (!folder) return true;
  if (folder->kind != Kind::directory) return false;
  DIR* stream = ::opendir(path.c_str());
  if (!stream) return false;
  std::vector<std::pair<std::string, Kind>> children;
  while (const dirent* item = ::readdir(stream)) {
    const std::string name = item->d_name;
    if (name == "." || name == "..") continue;
    const auto child = look(joinPath(path, name));
    if (!child) continue;
    children.emplace_back(name, child->kind);
  }
  ::closedir(stream);
  for (const auto& [name, kind] : children) {
    // The probe's folder and link swap names while it runs.
    const bool probeName = name == "a" || name == "b" || name == "link";
    if (!probeName || (kind != Kind::directory && kind != Kind::symbolicLink)) return false;
  }
  for (const auto& [name, kind] : children) {
    const std::string child = joinPath(path, name);
    // rmdir refuses a folder that is not empty, so nothing but the probe's own objects can go.
    if ((kind == Kind::directory ? ::rmdir(child.c_str()) : ::unlink(child.c_str())) != 0) return false;
  }
  return ::rmdir(path.c_str()) == 0;
}

bool MigrationJournalRecovery::holdsAllOf(const std::string& copy, const std::string& original,
                                          const std::string& originalPlace) {
  try {
    const auto manifest = MigrationIntegrityVerifier::snapshot(original, RuntimeEntries::allow, ReadableCheck::skip,
                                                               RemovableCheck::skip);
    MigrationVerificationOptions options;
    for (const auto& [relative, entry] : manifest) {
      if (entry.kind == Kind::socket) options.inactiveSockets.insert(relative);
    }
    options.relocated = MigrationLinkPlan::relocatedTargets(originalPlace, manifest);
    options.destinationMayHoldMore = true;
    MigrationIntegrityVerifier::verify(original, copy, manifest, options);
    return true;
  } catch (const std::exception& error) {
    logWarning("comparison of " + original + " with " + copy + " failed: " + error.what());
    return false;
  }
}

}  // namespace corvane
