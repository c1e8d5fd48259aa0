#include "app/migration_batch_run.h"

#include "app/interruption.h"
#include "app/progress_display.h"
#include "app/running_app_prompt.h"
#include "app/user_output.h"
#include "catalogue/app_manager.h"
#include "support/main_queue.h"

namespace corvane {

std::vector<MigrationManager::ItemOutcome> runMigrationBatch(const MigrationBatchRun& run) {
  InterruptionGuard interruption;
  MainQueue mainQueue;
  AppManager appManager(mainQueue);
  auto prompter = TerminalPrompter::onStandardStreams(run.prompts.preset());
  ProgressDisplay display(stderr, ProgressDisplay::styleFor(stderr));

  MigrationManager::Hooks hooks;
  hooks.prompter = prompter.get();
  hooks.cancelled = &InterruptionGuard::requested();
  hooks.retainOriginal = run.keepOriginal ? RetainOriginal::yes : RetainOriginal::no;
  hooks.closeRunningApp = [&](const std::string& path, const std::string& name, const std::vector<pid_t>& running) {
    display.clear();
    return askToCloseRunningApp(path, name, running, run.prompts.preset());
  };
  MigrationManager manager(mainQueue, appManager, hooks);
  const Subscription progressLines = manager.observeProgress(showingShortNames(display));
  const Subscription logLines = manager.observeLog([&](const std::string& line) {
    display.clear();
    if (run.printLog) printLine(line);
  });

  manager.migrateApps(run.paths, run.disk);
  runUntilFinishedTellingAboutInterruption(mainQueue, display, [&] { return !manager.isMigrating(); });
  display.clear();
  return manager.outcomes();
}

}  // namespace corvane
