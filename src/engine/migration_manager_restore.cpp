// Replacing a migrated item by one of its retained versions: the current copy is renamed
// aside as a new version first, so a failure can always put it back.
#include <fcntl.h>

#include <algorithm>

#include "catalogue/app_bundle_metadata.h"
#include "catalogue/migrated_backup_catalog.h"
#include "engine/manifest/migration_snapshot.h"
#include "engine/migration_failure.h"
#include "engine/migration_issue.h"
#include "engine/migration_manager.h"
#include "platform/file_system.h"
#include "settings/localization.h"
#include "support/paths.h"
#include "support/uuid.h"

namespace corvane {
bool MigrationManager::restoreFromBackup(const BackupRecord& backup, const MigratedApp& app,
                                         const std::optional<std::string>& disk, OperationCompletion completion) {
  // One operation per item: the item counts as being moved while its version is swapped.
  std::vector<std::string> disks;
  if (disk) disks.push_back(*disk);
  return startItemOperation(
      app, disks, {"log.migrate_back_blocked_by_migration", "log.migrate_back_in_progress", "log.restore_cancelled"},
      [this, backup, app, disk](const ItemOperation& item) {
        return performRestoreFromBackup(backup, app, item, disk);
      },
      std::move(completion));
}

MigrationManager::OperationResult MigrationManager::performRestoreFromBackup(const BackupRecord& backup,
                                                                             const MigratedApp& app,
                                                                             const ItemOperation& item,
                                                                             const std::optional<std::string>& disk) {
  const std::string& target = item.target;
  const std::string& name = item.name;
  const std::string chosen = standardizePath(backup.backupPath);
  const bool bundle = app.itemType == MigratedItemType::application;
  auto stop = [&](const std::string& key, std::vector<std::string> arguments = {}) {
    appendItemLog(name, key, arguments);
    return OperationResult{OperationResult::Kind::failed, formatLocalizedText(localized(key), arguments)};
  };

  appendItemLog(name, "log.restore_start", {});

  const auto chosenEntry = MigrationEntry::read(chosen, AT_FDCWD);
  if (!chosenEntry || chosenEntry->kind == MigrationEntry::Kind::symbolicLink) {
    return stop("log.restore_backup_missing", {chosen});
  }
  if (bundle) {
    appendItemLog(name, "log.restore_verify", {});
    const auto executables = MigrationEntry::read(chosen + "/Contents/MacOS", AT_FDCWD);
    if (chosenEntry->kind != MigrationEntry::Kind::directory || !executables ||
        executables->kind != MigrationEntry::Kind::directory) {
      return stop("log.restore_incomplete");
    }
  }
  // A version must be a sibling of the item: the swap is two renames in one directory.
  if (parentPath(chosen) != parentPath(target)) return stop("log.restore_backup_missing", {chosen});

  const std::optional<std::string> versionBefore = bundle ? AppBundleMetadata::version(target) : std::nullopt;
  const std::optional<std::string> versionAfter = bundle ? AppBundleMetadata::version(chosen) : std::nullopt;

  // A program holding a file of the current copy open would go on writing into the version put
  // aside: the swap waits, as a move-back does.
  try {
    const MigrationManifest manifest =
        MigrationSnapshot::walk(target, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
    transferConfiguration([this, name] {
      appendItemLog(name, "migration.occupancy.rechecking", {});
    }).checkUsage(target, manifest);
  } catch (...) {
    const auto failure = std::current_exception();
    OperationResult result = stop("log.restore_failed", {migrationErrorDescription(failure)});
    if (isMigrationDeferral(failure)) result.kind = OperationResult::Kind::deferred;
    return result;
  }

  appendItemLog(name, "log.restore_backup_current", {});
  const ReferenceDate now = ReferenceDate::now();
  const std::string kept = MigratedBackupCatalog::backupPathFor(target, app.itemType, now);
  try {
    if (!MigrationEntry::read(target, AT_FDCWD)) throw MigrationIssue("log.restore_backup_missing", target);
    platform::renameExclusive(target, kept);
  } catch (...) {
    return stop("log.restore_backup_failed", {migrationErrorDescription(std::current_exception())});
  }
  appendItemLog(name, "log.restore_current_backed_up", {kept});

  appendItemLog(name, "log.restore_moving", {});
  try {
    if (hooks_.beforeCommit) hooks_.beforeCommit();
    platform::renameExclusive(chosen, target);
  } catch (...) {
    OperationResult result = stop("log.restore_failed", {migrationErrorDescription(std::current_exception())});
    try {
      platform::renameExclusive(kept, target);
      appendItemLog(name, "log.restore_rollback_success", {});
    } catch (...) {
      appendItemLog(name, "log.restore_rollback_failed", {migrationErrorDescription(std::current_exception())});
    }
    appendItemLog("", "log.separator_line", {});
    return result;
  }
  appendItemLog(name, "log.restore_success", {});

  // The record now lists the kept current version instead of the one put in place.
  MigratedApp updated = app;
  std::erase_if(updated.backupVersions,
                [&](const BackupRecord& version) { return standardizePath(version.backupPath) == chosen; });
  BackupRecord keptRecord;
  keptRecord.id = makeUuidString();
  keptRecord.backupPath = kept;
  keptRecord.backupDate = MigratedBackupCatalog::backupDate(kept, target, app.itemType).value_or(now);
  keptRecord.exists = true;
  updated.backupVersions.push_back(keptRecord);
  MigratedBackupCatalog::sortNewestFirst(updated.backupVersions);

  changeRecords(item, disk, [updated, disk, kept, name, versionBefore, versionAfter](MigrationManager& manager) {
    manager.appendItemLog(name, "log.restore_update_record", {});
    const bool saved = manager.appManager_.saveMigratedApp(updated, disk, kept);
    if (!saved) manager.appendItemLog(name, "migration.safety.catalog_failed", {});
    if (versionBefore && versionAfter) {
      manager.appendItemLog(name, "log.restore_complete_versions", {*versionBefore, *versionAfter});
    } else {
      manager.appendItemLog(name, "log.restore_complete", {});
    }
    manager.appendItemLog("", "log.separator_line", {});
    return saved;
  });
  return OperationResult{OperationResult::Kind::succeeded, {}};
}

}  // namespace corvane
