#include "app/item_operation_runner.h"

#include "app/command_line.h"
#include "app/interruption.h"
#include "app/outcome_report.h"
#include "app/progress_display.h"
#include "app/running_app_prompt.h"
#include "app/user_output.h"
#include "catalogue/app_manager.h"
#include "settings/localization.h"
#include "support/main_queue.h"
#include "support/paths.h"

namespace corvane {

namespace {

std::string_view outcomeName(MigrationManager::OperationResult::Kind kind, const std::string& succeededAs) {
  using Kind = MigrationManager::OperationResult::Kind;
  switch (kind) {
    case Kind::succeeded:
      return succeededAs;
    case Kind::deferred:
      return "deferred";
    case Kind::cancelled:
      return "cancelled";
    case Kind::refused:
      return "refused";
    case Kind::failed:
      break;
  }
  return "failed";
}

}  // namespace

int reportItemOperationFailure(const std::exception& failure, const ItemOperationReport& report) {
  if (!report.json) return reportFailure(failure);
  printOutcomeReports({{.source = report.source, .outcome = "failed", .message = failureDescription(failure)}});
  return kExitFailure;
}

int runItemOperation(const ItemOperation& operation, const PromptOptions& prompts, ProgressLines progress,
                     const ItemOperationReport& report) {
  InterruptionGuard interruption;
  MainQueue mainQueue;
  AppManager appManager(mainQueue);
  auto prompter = TerminalPrompter::onStandardStreams(prompts.preset());
  ProgressDisplay display(stderr, ProgressDisplay::styleFor(stderr));

  MigrationManager::Hooks hooks;
  hooks.prompter = prompter.get();
  hooks.cancelled = &InterruptionGuard::requested();
  hooks.closeRunningApp = [&](const std::string& path, const std::string& name, const std::vector<pid_t>& running) {
    display.clear();
    return askToCloseRunningApp(path, name, running, prompts.preset());
  };
  std::optional<MigrationManager::OperationResult> result;
  {
    MigrationManager manager(mainQueue, appManager, hooks);
    Subscription progressLines;
    if (progress == ProgressLines::show) progressLines = manager.observeProgress(showingShortNames(display));
    const Subscription logLines = manager.observeLog([&](const std::string& line) {
      display.clear();
      if (!report.json) printLine(line);
    });
    operation(manager, [&](const MigrationManager::OperationResult& outcome) { result = outcome; });
    runUntilFinishedTellingAboutInterruption(mainQueue, display, [&] { return result.has_value(); });
  }
  display.clear();
  if (report.json) {
    printOutcomeReports({{.source = report.source,
                          .target = report.target,
                          .outcome = std::string(outcomeName(result->kind, report.succeededAs)),
                          .message = result->message,
                          .leftBehind = result->cleanupPath,
                          .recordSaved = result->recordSaved}});
  }
  if (!result->recordSaved) return kExitFailure;
  switch (result->kind) {
    case MigrationManager::OperationResult::Kind::succeeded:
      return kExitSuccess;
    case MigrationManager::OperationResult::Kind::deferred:
      return kExitDeferred;
    default:
      return kExitFailure;
  }
}

}  // namespace corvane
