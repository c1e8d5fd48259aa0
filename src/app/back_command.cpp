// `corvane back PATH|NAME [--disk DISK]`: moves a migrated item back to where it came from; the
// copy on the external disk and the item's record go once the item is back and verified.
#include "app/command_line.h"
#include "app/commands.h"
#include "app/item_operation_runner.h"
#include "app/migrated_item_lookup.h"
#include "app/user_output.h"
#include "engine/migration_issue.h"
#include "settings/localization.h"

namespace corvane {
namespace {

struct BackOptions {
  std::string item;
  std::optional<std::string> disk;
  bool json = false;
  PromptOptions prompts;
};

int runBack(const BackOptions& options) {
  ItemOperationReport report{.json = options.json, .source = options.item, .succeededAs = "movedBack"};
  MigratedItemMatch match;
  try {
    match = findMigratedItem(options.item, options.disk);
  } catch (const std::exception& failure) {
    return reportItemOperationFailure(failure, report);
  }
  report.source = match.app.targetPath;
  report.target = match.app.originalPath;
  return runItemOperation(
      [&](MigrationManager& manager, MigrationManager::OperationCompletion completion) {
        manager.migrateBackToMainDisk(match.app, match.disk, std::move(completion));
      },
      options.prompts, ProgressLines::show, report);
}

}  // namespace

void addBackCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<BackOptions>();
  CLI::App* back = app.add_subcommand("back", localized("cli.back.description"));
  back->add_option("item", options->item, localized("cli.back.item"))->required();
  back->add_option("--disk", options->disk, localized("cli.item.disk"));
  back->add_flag("--json", options->json, localized("cli.option.json"));
  addPromptOptions(back, options->prompts);
  registry.add(back, [options] { return runBack(*options); });
}

}  // namespace corvane
