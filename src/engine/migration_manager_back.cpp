// Moving a migrated item back to the internal disk: the copy on the external disk is staged
// beside the link, verified and exchanged with the link; only then does the record go.
#include <fcntl.h>

#include "engine/migration_issue.h"
#include "engine/migration_manager.h"
#include "engine/preflight/migration_open_files.h"
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

bool isDeferral(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const MigrationTransfer::Failure& transferFailure) {
    return isDeferral(transferFailure.cause());
  } catch (const MigrationOpenFiles::Blocked&) {
    return true;
  } catch (const MigrationIssue& issue) {
    return issue.key() == "migration.preflight.deferred";
  } catch (...) {
    return false;
  }
}

}  // namespace

bool MigrationManager::migrateBackToMainDisk(const MigratedApp& app, const std::optional<std::string>& currentDisk,
                                             OperationCompletion completion) {
  return admitItemOperation(
      app, [this, app, currentDisk] { return performMigrateBack(app, currentDisk); }, std::move(completion));
}

MigrationManager::OperationResult MigrationManager::performMigrateBack(const MigratedApp& app,
                                                                       const std::optional<std::string>& currentDisk) {
  const std::string original = standardizePath(app.originalPath);
  const std::string target = standardizePath(app.targetPath);
  const std::string name = app.appName.empty() ? lastComponent(original) : app.appName;
  OperationResult result;

  if (!closeRunningProgramsOf(target, name)) {
    appendItemLog(name, "log.migrate_back_cancel", {});
    result.kind = OperationResult::Kind::cancelled;
    result.message = localized("log.migrate_back_cancel");
    return result;
  }

  MigrationItemProgress progressItem;
  progressItem.name = original;
  MigrationProgressTracker tracker({progressItem});
  if (progressObserver_) tracker.start(progressPublisher());
  appendItemLog(name, "log.migrate_back_start", {});

  MigrationTransfer::Result transferred;
  try {
    // A real object where the link was means the user put something there: it is theirs.
    const auto standing = MigrationEntry::read(original, AT_FDCWD);
    if (standing && standing->kind != MigrationEntry::Kind::symbolicLink) {
      throw MigrationIssue("error.migration_restore_conflict", original);
    }
    MigrationFileSafety::requireRestoreLink(original, target);

    auto configuration =
        transferConfiguration([this, name] { appendItemLog(name, "migration.occupancy.rechecking", {}); });
    MigrationTransfer transfer(std::move(configuration));
    transferred = transfer.transfer(target, original, MigrationTransfer::Placement::restore, tracker, original,
                                    RetainOriginal::no, {},
                                    [&](const std::string& key, const std::vector<std::string>& arguments) {
                                      appendItemLog(name, key, arguments);
                                    });
  } catch (...) {
    const auto failure = std::current_exception();
    tracker.stop();
    result.message = migrationErrorDescription(failure);
    result.kind = isDeferral(failure) ? OperationResult::Kind::deferred : OperationResult::Kind::failed;
    appendItemLog(name, "log.migrate_back_failed_detailed", {result.message});
    try {
      std::rethrow_exception(failure);
    } catch (const MigrationTransfer::Failure& transferFailure) {
      if (transferFailure.cleanupPath()) {
        appendItemLog(name, "migration.occupancy.cleanup_detail", {*transferFailure.cleanupPath()});
      }
    } catch (...) {
    }
    return result;
  }
  tracker.stop();
  // The item is back; a copy that could not be removed from the external disk is only named.
  if (transferred.retainedSource && transferred.retainedPath) {
    appendItemLog(name, "migration.occupancy.cleanup_detail", {*transferred.retainedPath});
  }

  appendItemLog(name, "log.cleaning_migration_record", {});
  std::optional<std::string> disk = diskRootFromTargetPath(target);
  if (!disk) disk = diskRootFromLayout(app);
  if (disk) {
    appendItemLog(name, "log.target_disk_path", {*disk});
  } else {
    appendItemLog(name, "log.disk_path_error", {target});
    if (currentDisk) {
      disk = standardizePath(*currentDisk);
      appendItemLog(name, "log.using_fallback_disk", {*disk});
    } else {
      appendItemLog(name, "log.no_available_disk_path", {});
    }
  }
  // The catalogue's list must be this disk's before one record of it is removed and the rest
  // written back; the load reaches the owner thread ahead of the removal.
  if (disk) appManager_.loadMigratedApps(*disk);
  mainQueue_.post([lifetime = std::weak_ptr<MigrationManager*>(lifetime_), app, disk, name] {
    auto alive = lifetime.lock();
    if (!alive) return;
    MigrationManager& manager = **alive;
    if (disk) {
      if (manager.appManager_.removeMigratedApp(app, *disk)) {
        manager.appendItemLog(name, "log.migration_record_cleaned", {});
      } else {
        manager.appendItemLog(name, "migration.safety.catalog_failed", {});
      }
    }
    manager.appendItemLog(name, "log.migrate_back_complete", {});
    manager.appendItemLog(name, "log.migration_complete", {});
    manager.appendItemLog("", "log.separator_line", {});
  });
  result.kind = OperationResult::Kind::succeeded;
  return result;
}

}  // namespace corvane
