// What moving back, restoring and uninstalling share: admission of the work, the background
// thread, the item's log lines and the question about programs running inside the item.
#include <cstring>

#include "engine/migration_manager.h"
#include "platform/item_processes.h"
#include "support/diagnostic_log.h"
#include "support/localization.h"
#include "support/paths.h"

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

}  // namespace corvane
