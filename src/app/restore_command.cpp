// `corvane restore NAME --version DATE|ID [--disk DISK]`: puts a retained version of a migrated
// item in place of its current copy, which is kept as a new version.
#include <algorithm>
#include <cctype>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/item_operation_runner.h"
#include "app/migrated_item_lookup.h"
#include "app/user_output.h"
#include "catalogue/migrated_backup_catalog.h"
#include "engine/migration_issue.h"
#include "settings/localization.h"

namespace corvane {
namespace {

struct RestoreOptions {
  std::string item;
  std::string version;
  std::optional<std::string> disk;
  bool json = false;
  PromptOptions prompts;
};

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
  return text;
}

// A version is named by the time in its name ("yyyyMMdd_HHmmss") or by its record's id.
std::optional<BackupRecord> chosenVersion(const MigratedApp& app, const std::string& wanted) {
  for (const auto& backup : app.backupVersions) {
    if (upper(backup.id) == upper(wanted) || MigratedBackupCatalog::formatTimestamp(backup.backupDate) == wanted) {
      return backup;
    }
  }
  return std::nullopt;
}

int runRestore(const RestoreOptions& options) {
  ItemOperationReport report{.json = options.json, .source = options.item, .succeededAs = "restored"};
  MigratedItemMatch match;
  try {
    match = findMigratedItem(options.item, options.disk);
  } catch (const std::exception& failure) {
    return reportItemOperationFailure(failure, report);
  }
  const auto backup = chosenVersion(match.app, options.version);
  if (!backup) {
    if (options.json) {
      return reportItemOperationFailure(
          MigrationIssue("cli.restore.no_such_version", {options.version, match.app.appName}), report);
    }
    printErrorLine(localizedFormat("cli.restore.version_not_found", options.version, match.app.appName));
    for (const auto& version : match.app.backupVersions) {
      printErrorLine(localizedFormat("cli.restore.version_line",
                                     MigratedBackupCatalog::formatTimestamp(version.backupDate), version.id,
                                     version.backupPath));
    }
    return kExitFailure;
  }
  report.source = backup->backupPath;
  report.target = match.app.targetPath;
  return runItemOperation(
      [&](MigrationManager& manager, MigrationManager::OperationCompletion completion) {
        manager.restoreFromBackup(*backup, match.app, match.disk, std::move(completion));
      },
      options.prompts, ProgressLines::hide, report);
}

}  // namespace

void addRestoreCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<RestoreOptions>();
  CLI::App* restore = app.add_subcommand("restore", localized("cli.restore.description"));
  restore->add_option("item", options->item, localized("cli.restore.item"))->required();
  restore->add_option("--version", options->version, localized("cli.restore.version"))->required();
  restore->add_option("--disk", options->disk, localized("cli.item.disk"));
  restore->add_flag("--json", options->json, localized("cli.option.json"));
  addPromptOptions(restore, options->prompts);
  registry.add(restore, [options] { return runRestore(*options); });
}

}  // namespace corvane
