// Moving a migrated item back to the internal disk: the copy on the external disk is staged
// beside the link, verified and exchanged with the link; only then does the record go.
#include <fcntl.h>

#include "engine/migration_failure.h"
#include "engine/migration_issue.h"
#include "engine/migration_manager.h"
#include "engine/switch/migration_file_safety.h"
#include "settings/localization.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {
namespace {

// The disk root by this program's own layout: <disk>/Applications/<name> for applications,
// <disk>/Directories/<original path> for everything else. Used where the target does not lie
// under /Volumes.
std::optional<std::string> diskRootFromLayout(const MigratedApp& app) {
  const std::string target = standardizePath(app.targetPath);
  const std::string original = standardizePath(app.originalPath);
  const std::string mirrored = "/Directories" + original;
  if (target.size() > mirrored.size() &&
      target.compare(target.size() - mirrored.size(), mirrored.size(), mirrored) == 0) {
    return target.substr(0, target.size() - mirrored.size());
  }
  const std::string parent = parentPath(target);
  if (lastComponent(parent) == "Applications" && parent != "/Applications") return parentPath(parent);
  return std::nullopt;
}

}  // namespace

bool MigrationManager::migrateBackToMainDisk(const MigratedApp& app, const std::optional<std::string>& currentDisk,
                                             OperationCompletion completion) {
  std::vector<std::string> disks;
  if (currentDisk) disks.push_back(*currentDisk);
  return startItemOperation(
      app, disks, {"log.migrate_back_blocked_by_migration", "log.migrate_back_in_progress", "log.migrate_back_cancel"},
      [this, app, currentDisk](const ItemOperation& item) { return performMigrateBack(app, item, currentDisk); },
      std::move(completion));
}

MigrationManager::OperationResult MigrationManager::performMigrateBack(const MigratedApp& app,
                                                                       const ItemOperation& item,
                                                                       const std::optional<std::string>& currentDisk) {
  const std::string& original = item.original;
  const std::string& target = item.target;
  const std::string& name = item.name;
  OperationResult result;

  MigrationItemProgress progressItem;
  progressItem.name = original;
  MigrationProgressTracker tracker({progressItem});
  if (!progressObservers_.empty()) tracker.start(progressPublisher());
  appendItemLog(name, "log.migrate_back_start", {});

  // The disk's records and journal change with the item: which disk holds the copy is settled
  // before anything moves.
  std::optional<std::string> disk = diskRootFromTargetPath(target);
  if (!disk) disk = diskRootFromLayout(app);
  std::optional<std::string> fallbackDisk;
  if (!disk && currentDisk) fallbackDisk = standardizePath(*currentDisk);
  std::shared_ptr<MigrationJournal> journal;
  if (const auto& journalDisk = disk ? disk : fallbackDisk) {
    recoverInterrupted(*journalDisk, [&](const std::string& key, const std::vector<std::string>& arguments) {
      appendItemLog(name, key, arguments);
    });
    journal = std::make_shared<MigrationJournal>(*journalDisk, MigrationJournalDirection::back, name);
  }

  MigrationTransfer::Result transferred;
  try {
    // A real object where the link was means the user put something there: it is theirs.
    const auto standing = MigrationEntry::read(original, AT_FDCWD);
    if (standing && standing->kind != MigrationEntry::Kind::symbolicLink) {
      throw MigrationIssue("error.migration_restore_conflict", original);
    }
    MigrationFileSafety::requireRestoreLink(original, target);

    MigrationTransfer transfer(
        transferConfiguration([this, name] { appendItemLog(name, "migration.occupancy.rechecking", {}); }));
    transferred = transfer.transfer(
        {.source = target,
         .destination = original,
         .placement = MigrationTransfer::Placement::restore,
         .tracker = tracker,
         .name = original,
         .log = [&](const std::string& key,
                    const std::vector<std::string>& arguments) { appendItemLog(name, key, arguments); },
         .journal = journal.get()});
  } catch (...) {
    const auto failure = std::current_exception();
    tracker.stop();
    result.message = migrationErrorDescription(failure);
    result.kind = isMigrationDeferral(failure) ? OperationResult::Kind::deferred : OperationResult::Kind::failed;
    appendItemLog(name, "log.migrate_back_failed_detailed", {result.message});
    result.cleanupPath = migrationCleanupPath(failure);
    if (result.cleanupPath) appendItemLog(name, "migration.occupancy.cleanup_detail", {*result.cleanupPath});
    return result;
  }
  tracker.stop();
  // The item is back; a copy that could not be removed from the external disk is only named.
  if (transferred.retainedSource && transferred.retainedPath) {
    result.cleanupPath = transferred.retainedPath;
    appendItemLog(name, "migration.occupancy.cleanup_detail", {*transferred.retainedPath});
  }

  appendItemLog(name, "log.cleaning_migration_record", {});
  if (disk) {
    appendItemLog(name, "log.target_disk_path", {*disk});
  } else {
    appendItemLog(name, "log.disk_path_error", {target});
    if (fallbackDisk) {
      disk = fallbackDisk;
      appendItemLog(name, "log.using_fallback_disk", {*disk});
    } else {
      appendItemLog(name, "log.no_available_disk_path", {});
    }
  }
  // The journal entry is closed with the record, on the owner thread.
  std::shared_ptr<MigrationJournal> openJournal = journal && journal->isOpen() ? journal : nullptr;
  changeRecords(item, disk, [app, disk, name, openJournal](MigrationManager& manager) {
    const bool removed = disk && manager.appManager_.removeMigratedApp(app, *disk);
    if (removed && openJournal) {
      try {
        openJournal->mark(MigrationJournal::Step::recorded);
        openJournal->close();
      } catch (const std::exception& error) {
        logWarning(std::string("journal entry stays: ") + error.what());
      }
    }
    manager.appendItemLog(name, removed ? "log.migration_record_cleaned" : "migration.safety.catalog_failed", {});
    manager.appendItemLog(name, "log.migrate_back_complete", {});
    manager.appendItemLog(name, "log.migration_complete", {});
    manager.appendItemLog("", "log.separator_line", {});
    return removed;
  });
  result.kind = OperationResult::Kind::succeeded;
  return result;
}

}  // namespace corvane
