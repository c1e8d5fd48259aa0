// What moving back, restoring and uninstalling share: admission of the work, the background
// thread, the item's log lines and the question about programs running inside the item.
#include <cstring>

#include "engine/migration_failure.h"
#include "engine/migration_issue.h"
#include "engine/migration_manager.h"
#include "engine/switch/migration_file_safety.h"
#include "platform/item_processes.h"
#include "settings/localization.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"
#include "support/update_activity.h"

namespace corvane {

std::optional<std::string> MigrationManager::diskRootFromTargetPath(const std::string& targetPath) {
  const auto components = pathComponents(standardizePath(targetPath));
  // pathComponents leaves out the root: {"Volumes", name, ...}.
  if (components.size() >= 2 && components[0] == "Volumes") return "/Volumes/" + components[1];
  return std::nullopt;
}

bool MigrationManager::closeRunningProgramsOf(const std::string& path, const std::string& name) {
  std::vector<pid_t> pids;
  for (const auto& process : platform::processesExecutingWithin(path)) pids.push_back(process.pid);
  if (pids.empty()) return true;
  return hooks_.closeRunningApp && hooks_.closeRunningApp(path, name, pids);
}

void MigrationManager::appendItemLog(const std::string& item, const std::string& key,
                                     const std::vector<std::string>& arguments) {
  mainQueue_.post([lifetime = std::weak_ptr<MigrationManager*>(lifetime_), line = logLine(item, key, arguments)] {
    if (auto alive = lifetime.lock()) (*alive)->appendLogNow(line);
  });
}

void MigrationManager::runInBackground(std::function<OperationResult()> work, OperationCompletion completion) {
  operations_.emplace_back([this, work = std::move(work), completion = std::move(completion)] {
    OperationResult result;
    try {
      result = work();
    } catch (...) {
      result.kind = OperationResult::Kind::failed;
      result.message = migrationErrorDescription(std::current_exception());
    }
    // Record changes run on the owner thread and post their own log lines from there; one more
    // turn of the queue puts the completion after those lines.
    auto lifetime = std::weak_ptr<MigrationManager*>(lifetime_);
    mainQueue_.post([this, lifetime, result, completion] {
      if (!lifetime.lock()) return;
      mainQueue_.post([lifetime, result, completion] {
        if (lifetime.lock() && completion) completion(result);
      });
    });
  });
}

bool MigrationManager::startItemOperation(const MigratedApp& app, const std::vector<std::string>& disks,
                                          const ItemOperationKeys& keys,
                                          std::function<OperationResult(const ItemOperation&)> perform,
                                          OperationCompletion completion) {
  ItemOperation item;
  item.original = standardizePath(app.originalPath);
  item.target = standardizePath(app.targetPath);
  item.name = app.appName.empty() ? lastComponent(item.original) : app.appName;
  auto refuse = [&](const std::string& key) {
    appendItemLog(item.name, key, {});
    if (completion) completion(OperationResult{OperationResult::Kind::refused, localized(key)});
    return false;
  };
  if (isMigrating_) return refuse(keys.duringBatch);
  if (migratingBackItems_.count(item.original)) return refuse(keys.alreadyRunning);
  if (!UpdateActivity::shared().beginOperation()) return refuse("log.migrate_back_blocked_by_update");
  migratingBackItems_.insert(item.original);
  notify();
  runInBackground(
      [this, item, disks, keys, id = app.id, paths = std::vector{app.originalPath, app.targetPath},
       perform = std::move(perform)] {
        // Whatever happens, a software update waiting for this operation may go on afterwards.
        struct EndOperation {
          ~EndOperation() { UpdateActivity::shared().endAfterPendingWrites(); }
        } end;
        // A record naming "/" must not make every program on the machine a candidate for closing.
        bool onDisk = false;
        try {
          for (const auto& path : paths) MigrationFileSafety::requireDefinitePath(path);
          try {
            const std::string disk = MigrationFileSafety::requireInsideDisk(item.target, disks);
            onDisk = true;
            MigrationFileSafety::requireNoOtherItemInside(item.target, disk, id);
          } catch (const MigrationIssue&) {
            if (onDisk || keys.needsTargetOnDisk) throw;
          }
        } catch (const MigrationIssue& issue) {
          appendItemLog(item.name, issue.key(), {issue.detail()});
          return OperationResult{OperationResult::Kind::failed, issue.localizedDescription()};
        }
        // Another process moving back, restoring or uninstalling the same item.
        platform::UniqueFd claim;
        if (onDisk) {
          try {
            MigrationFileSafety::claimItem(item.target, claim);
          } catch (const MigrationIssue& issue) {
            appendItemLog(item.name, issue.key(), {issue.detail()});
            return OperationResult{OperationResult::Kind::failed, issue.localizedDescription()};
          }
        }
        const std::string& cancelledKey = keys.cancelled;
        if (onDisk && !closeRunningProgramsOf(item.target, item.name)) {
          appendItemLog(item.name, cancelledKey, {});
          return OperationResult{OperationResult::Kind::cancelled, localized(cancelledKey)};
        }
        return perform(item);
      },
      [this, original = item.original, recordFailed = item.recordFailed,
       completion = std::move(completion)](OperationResult result) {
        migratingBackItems_.erase(original);
        notify();
        if (*recordFailed) {
          result.recordSaved = false;
          if (result.message.empty()) result.message = localized("migration.safety.catalog_failed");
        }
        if (completion) completion(result);
      });
  return true;
}

void MigrationManager::changeRecords(const ItemOperation& item, const std::optional<std::string>& disk,
                                     std::function<bool(MigrationManager&)> change) {
  // The catalogue's list must be this disk's before one record of it changes and the rest are
  // written back; the load reaches the owner thread ahead of the change.
  if (disk) appManager_.loadMigratedApps(*disk);
  mainQueue_.post(
      [lifetime = std::weak_ptr<MigrationManager*>(lifetime_), failed = item.recordFailed, change = std::move(change)] {
        if (auto alive = lifetime.lock()) {
          if (!change(**alive)) *failed = true;
        }
      });
}

}  // namespace corvane
