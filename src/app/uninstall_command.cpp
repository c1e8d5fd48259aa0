// `corvane uninstall NAME [--disk DISK]`: deletes a migrated item for good (its link, its copy
// on the external disk, its support files and its record) after the user confirmed it.
#include <unistd.h>

#include <iostream>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/item_operation_runner.h"
#include "app/migrated_item_lookup.h"
#include "app/user_output.h"
#include "engine/migration_issue.h"
#include "settings/localization.h"

namespace corvane {
namespace {

struct UninstallOptions {
  std::string item;
  std::optional<std::string> disk;
  bool json = false;
  bool withVersions = false;
  PromptOptions prompts;
};

bool confirmed(const MigratedItemMatch& match, const std::vector<std::string>& versions) {
  std::string question = localizedFormat("cli.uninstall.confirm", match.app.appName, match.app.targetPath);
  if (!versions.empty()) {
    std::string list;
    for (const auto& version : versions) list += "\n  " + version;
    question = localizedFormat("cli.uninstall.confirm_versions", match.app.appName, match.app.targetPath, list);
  }
  std::fputs((question + " ").c_str(), stderr);
  std::fflush(stderr);
  std::string answer;
  if (!std::getline(std::cin, answer)) return false;
  return answer == "y" || answer == "Y" || answer == "yes" || answer == "YES" || answer == "Yes";
}

int runUninstall(const UninstallOptions& options) {
  ItemOperationReport report{.json = options.json, .source = options.item, .succeededAs = "uninstalled"};
  MigratedItemMatch match;
  try {
    match = findMigratedItem(options.item, options.disk);
  } catch (const std::exception& failure) {
    return reportItemOperationFailure(failure, report);
  }
  report.source = match.app.originalPath;
  report.target = match.app.targetPath;
  if (!options.prompts.yes) {
    // Deleting is never decided without someone who can be asked.
    if (options.prompts.defer || !isatty(STDIN_FILENO)) {
      return reportItemOperationFailure(MigrationIssue("cli.uninstall.no_terminal"), report);
    }
    const auto versions =
        options.withVersions ? MigrationManager::retainedVersionsOf(match.app) : std::vector<std::string>{};
    if (!confirmed(match, versions))
      return reportItemOperationFailure(MigrationIssue("cli.uninstall.declined"), report);
  }
  return runItemOperation(
      [&](MigrationManager& manager, MigrationManager::OperationCompletion completion) {
        manager.uninstallApp(match.app, {match.disk}, std::move(completion),
                             options.withVersions ? MigrationManager::RetainedVersions::remove
                                                  : MigrationManager::RetainedVersions::keep);
      },
      options.prompts, ProgressLines::hide, report);
}

}  // namespace

void addUninstallCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<UninstallOptions>();
  CLI::App* uninstall = app.add_subcommand("uninstall", localized("cli.uninstall.description"));
  uninstall->add_option("item", options->item, localized("cli.uninstall.item"))->required();
  uninstall->add_option("--disk", options->disk, localized("cli.item.disk"));
  uninstall->add_flag("--json", options->json, localized("cli.option.json"));
  uninstall->add_flag("--with-versions", options->withVersions, localized("cli.uninstall.with_versions"));
  addPromptOptions(uninstall, options->prompts);
  registry.add(uninstall, [options] { return runUninstall(*options); });
}

}  // namespace corvane
