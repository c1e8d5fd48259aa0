// `corvane migrate PATH... [--to DISK]`: moves items to the disk (without --to, the disk the
// disk manager chose, after the protection gate) as one batch, with a live
// progress line per active item, the log of each item and the batch summary. Ctrl-C stops the
// items still copying or verifying; each is rolled back and its original stays as it was.
#include <signal.h>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/migration_batch_run.h"
#include "app/outcome_report.h"
#include "app/protection_gate_prompt.h"
#include "app/terminal_prompter.h"
#include "app/user_output.h"
#include "engine/migration_manager.h"
#include "settings/localization.h"
#include "support/paths.h"

namespace corvane {
namespace {

struct MigrateOptions {
  std::vector<std::string> paths;
  std::string disk;
  bool keepOriginal = false;
  bool protect = false;
  bool json = false;
  PromptOptions prompts;
};

std::string_view outcomeName(MigrationManager::ItemOutcome::Kind kind) {
  switch (kind) {
    case MigrationManager::ItemOutcome::Kind::succeeded:
      return "migrated";
    case MigrationManager::ItemOutcome::Kind::failed:
      return "failed";
    case MigrationManager::ItemOutcome::Kind::skipped:
      return "skipped";
    case MigrationManager::ItemOutcome::Kind::deferred:
      return "deferred";
  }
  return "failed";
}

int exitStatusFor(const std::vector<MigrationManager::ItemOutcome>& outcomes) {
  bool deferred = false;
  for (const auto& outcome : outcomes) {
    if (outcome.kind == MigrationManager::ItemOutcome::Kind::failed || !outcome.recordSaved) return kExitFailure;
    if (outcome.kind == MigrationManager::ItemOutcome::Kind::deferred) deferred = true;
  }
  return deferred ? kExitDeferred : kExitSuccess;
}

void printJson(const std::vector<MigrationManager::ItemOutcome>& outcomes) {
  std::vector<OutcomeReport> reports;
  for (const auto& outcome : outcomes) {
    reports.push_back({.source = outcome.source,
                       .target = outcome.target,
                       .outcome = std::string(outcomeName(outcome.kind)),
                       .message = outcome.message,
                       .retainedOriginal = outcome.retainedPath,
                       .leftBehind = outcome.cleanupPath,
                       .recordSaved = outcome.recordSaved});
  }
  printOutcomeReports(reports);
}

int runMigrate(const MigrateOptions& options) {
  std::vector<std::string> paths;
  for (const auto& path : options.paths) paths.push_back(absolutePath(path));
  const std::string disk =
      options.disk.empty() || options.protect
          ? destinationAfterProtectionGate({options.disk, options.protect, options.prompts.preset()})
          : absolutePath(options.disk);
  const auto outcomes = runMigrationBatch({.paths = paths,
                                           .disk = disk,
                                           .prompts = options.prompts,
                                           .keepOriginal = options.keepOriginal,
                                           .printLog = !options.json});
  if (options.json) printJson(outcomes);
  return exitStatusFor(outcomes);
}

}  // namespace

void addMigrateCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<MigrateOptions>();
  CLI::App* migrate = app.add_subcommand("migrate", localized("cli.migrate.description"));
  migrate->add_option("path", options->paths, localized("cli.migrate.path"))->required();
  migrate->add_option("--to", options->disk, localized("cli.migrate.to"));
  migrate->add_flag("--protect", options->protect, localized("cli.migrate.protect"));
  migrate->add_flag("--keep-original", options->keepOriginal, localized("cli.migrate.keep_original"));
  migrate->add_flag("--json", options->json, localized("cli.option.json"));
  addPromptOptions(migrate, options->prompts);
  registry.add(migrate, [options] { return runMigrate(*options); });
}

}  // namespace corvane
