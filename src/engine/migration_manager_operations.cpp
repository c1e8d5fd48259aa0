// What moving back, restoring and uninstalling share: admission of the work, the background
// thread, the item's log lines and the question about programs running inside the item.
#include <cstring>

#include "engine/migration_manager.h"
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
  std::string line = formatLocalizedText(localized(key), arguments);
  if (!item.empty()) line = localizedFormat("migration.log.item", item, line);
  logInfo(line);
  mainQueue_.post([lifetime = std::weak_ptr<MigrationManager*>(lifetime_), line] {
    auto alive = lifetime.lock();
    if (!alive) return;
    MigrationManager& manager = **alive;
    manager.logText_ += line + "\n";
    if (manager.logObserver_) manager.logObserver_(line);
    manager.notify();
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

bool MigrationManager::admitItemOperation(const MigratedApp& app, std::function<OperationResult()> work,
                                          OperationCompletion completion) {
  const std::string item = standardizePath(app.originalPath);
  const std::string name = app.appName.empty() ? lastComponent(item) : app.appName;
  auto refuse = [&](const std::string& key) {
    appendItemLog(name, key, {});
    if (completion) completion(OperationResult{OperationResult::Kind::refused, localized(key)});
    return false;
  };
  if (isMigrating_) return refuse("log.migrate_back_blocked_by_migration");
  if (migratingBackItems_.count(item)) return refuse("log.migrate_back_in_progress");
  if (!UpdateActivity::shared().beginOperation()) return refuse("log.migrate_back_blocked_by_update");
  migratingBackItems_.insert(item);
  notify();
  runInBackground(
      [work = std::move(work)] {
        // Whatever happens, a software update waiting for this operation may go on afterwards.
        struct EndOperation {
          ~EndOperation() { UpdateActivity::shared().endAfterPendingWrites(); }
        } end;
        return work();
      },
      [this, item, completion = std::move(completion)](const OperationResult& result) {
        migratingBackItems_.erase(item);
        notify();
        if (completion) completion(result);
      });
  return true;
}

}  // namespace corvane
