// Uninstalling a migrated item: its link, its copy on the external disk, its support files and
// its record go; a real item found at the original location is the user's and stays. Each step
// goes on past the failures of the one before and they are reported together.
#include <fcntl.h>
#include <unistd.h>

#include "catalogue/migrated_backup_catalog.h"
#include "engine/migration_failure.h"
#include "engine/migration_issue.h"
#include "engine/migration_manager.h"
#include "engine/switch/migration_file_safety.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/tree_removal.h"
#include "settings/localization.h"
#include "support/diagnostic_log.h"
#include "support/home_directory.h"
#include "support/paths.h"

namespace corvane {

bool MigrationManager::uninstallApp(const MigratedApp& app, const std::vector<std::string>& externalDisks,
                                    OperationCompletion completion, RetainedVersions versions) {
  return startItemOperation(
      app, externalDisks,
      {"log.uninstall_blocked_by_migration", "log.uninstall_in_progress", "log.uninstall_cancelled", false},
      [this, app, externalDisks, versions](const ItemOperation& item) {
        return performUninstall(app, item, versions, externalDisks);
      },
      std::move(completion));
}

std::vector<std::string> MigrationManager::retainedVersionsOf(const MigratedApp& app) {
  std::vector<std::string> paths;
  for (const auto& backup : MigratedBackupCatalog::reconciledRecords(app)) {
    // Only what is named as a version of this very copy, beside it: a record cannot make an
    // uninstall delete anything else by listing it as a version.
    if (!backup.exists || !MigratedBackupCatalog::backupDate(backup.backupPath, app.targetPath, app.itemType)) continue;
    paths.push_back(standardizePath(backup.backupPath));
  }
  return paths;
}

MigrationManager::OperationResult MigrationManager::performUninstall(const MigratedApp& app, const ItemOperation& item,
                                                                     RetainedVersions versions,
                                                                     const std::vector<std::string>& externalDisks) {
  const std::string& original = item.original;
  const std::string& target = item.target;
  const std::string& name = item.name;
  bool failed = false;

  appendItemLog(name, "log.uninstall_start", {});
  appendItemLog(name, "log.uninstall_progress", {});

  // What the record names is acted on only when its copy lies on one of the disks.
  std::optional<std::string> disk;
  try {
    disk = MigrationFileSafety::requireInsideDisk(target, externalDisks);
  } catch (const MigrationIssue&) {
  }
  // Checked when the operation began; again now, since a transfer may have begun inside the
  // copy while the user was asked about the programs running from it.
  if (disk) {
    try {
      MigrationFileSafety::requireNoOtherItemInside(target, *disk, app.id);
    } catch (const MigrationIssue& issue) {
      appendItemLog(name, issue.key(), {issue.detail()});
      return OperationResult{OperationResult::Kind::failed, issue.localizedDescription()};
    }
  }

  // 1. The link at the original location.
  const auto standing = MigrationEntry::read(original, AT_FDCWD);
  if (disk && AppManager::isAppSymlink(app)) {
    try {
      // Still the same link object when it goes.
      const auto now = MigrationEntry::read(original, AT_FDCWD);
      if (!now || !standing || now->identity() != standing->identity() ||
          now->kind != MigrationEntry::Kind::symbolicLink) {
        throw MigrationIssue("error.migration_restore_conflict", original);
      }
      if (unlink(original.c_str()) != 0) platform::throwErrno(original);
      appendItemLog(name, "log.uninstall_symlink_deleted", {original});
    } catch (...) {
      failed = true;
      appendItemLog(name, "log.uninstall_failed", {migrationErrorDescription(std::current_exception())});
      appendItemLog(name, "log.uninstall_continue_external", {});
    }
  } else if (standing) {
    appendItemLog(name, "log.uninstall_real_file_skip", {original});
  } else {
    appendItemLog(name, "log.uninstall_original_missing", {original});
  }

  // 2. The copy on the external disk.
  try {
    if (!disk) throw MigrationIssue("migration.safety.outside_disk", target);
    if (MigrationEntry::read(target, AT_FDCWD)) {
      platform::removeTreeBelow(*disk, target);
      appendItemLog(name, "log.uninstall_app_deleted", {target});
    } else {
      logInfo("uninstall: nothing at " + target);
    }
  } catch (...) {
    failed = true;
    appendItemLog(name, "log.uninstall_failed", {migrationErrorDescription(std::current_exception())});
    appendItemLog(name, "log.uninstall_continue_support", {});
  }

  // 2b. The retained versions, when asked for.
  if (versions == RetainedVersions::remove) {
    for (const auto& version : retainedVersionsOf(app)) {
      try {
        if (!disk) throw MigrationIssue("migration.safety.outside_disk", version);
        MigrationFileSafety::requireDefinitePath(version);
        MigrationFileSafety::requireInsideDisk(version, {*disk});
        MigrationFileSafety::requireNoOtherItemInside(version, *disk, app.id);
        platform::removeTreeBelow(*disk, version);
        appendItemLog(name, "log.uninstall_version_deleted", {version});
      } catch (...) {
        failed = true;
        appendItemLog(name, "log.uninstall_failed", {migrationErrorDescription(std::current_exception())});
      }
    }
  }

  // 3. Support files.
  // They are the item's own files in the user's folders: strictly inside the home folder,
  // reached through real folders only.
  const std::string home = standardizePath(userHomeDirectory());
  for (const auto& supportFile : app.supportFiles) {
    const std::string path = standardizePath(supportFile);
    try {
      MigrationFileSafety::requireDefinitePath(supportFile);
      MigrationFileSafety::requireInsideDisk(path, {home}, "migration.safety.outside_home");
      platform::removeTreeBelow(home, path);
      appendItemLog(name, "log.uninstall_support_deleted", {path});
    } catch (...) {
      failed = true;
      appendItemLog(name, "log.uninstall_support_failed", {path, migrationErrorDescription(std::current_exception())});
    }
  }

  // 4. The record, on every connected disk; the list written is the first disk's.
  const std::optional<std::string> firstDisk =
      externalDisks.empty() ? std::nullopt : std::optional<std::string>(externalDisks.front());
  changeRecords(item, firstDisk, [app, externalDisks, name, failed](MigrationManager& manager) {
    const bool removed = manager.appManager_.removeMigratedAppAndSaveToAllDisks(app, externalDisks);
    manager.appendItemLog(name, removed ? "log.uninstall_record_deleted" : "migration.safety.catalog_failed", {});
    const bool withErrors = failed || !removed;
    if (withErrors) {
      manager.appendItemLog(name, "log.uninstall_complete_with_errors", {});
      manager.appendItemLog(name, "log.uninstall_completion_with_errors", {});
    } else {
      manager.appendItemLog(name, "log.uninstall_complete", {});
    }
    manager.appendItemLog("", "log.separator_line", {});
    return removed;
  });
  OperationResult result;
  result.kind = failed ? OperationResult::Kind::failed : OperationResult::Kind::succeeded;
  if (failed) result.message = localized("log.uninstall_complete_with_errors");
  return result;
}

}  // namespace corvane
