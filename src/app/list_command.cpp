// `corvane list --disk DISK`: the items recorded on a disk, with where each lives, whether its
// link is still in place and which older versions are kept.
#include <fcntl.h>

#include <map>
#include <nlohmann/json.hpp>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/user_output.h"
#include "catalogue/app_bundle_metadata.h"
#include "catalogue/app_manager.h"
#include "catalogue/migrated_backup_catalog.h"
#include "disks/link_drift.h"
#include "disks/volumes_roots.h"
#include "engine/manifest/migration_entry.h"
#include "engine/migrated_item_condition.h"
#include "engine/migration_issue.h"
#include "settings/localization.h"
#include "support/paths.h"
#include "support/shell_quote.h"

namespace corvane {
namespace {

struct ListOptions {
  std::string disk;
  bool json = false;
};

std::string dateText(ReferenceDate date) { return MigratedBackupCatalog::formatTimestamp(date); }

int runList(const ListOptions& options) {
  const std::string disk = absolutePath(options.disk);
  if (!MigrationEntry::read(disk, AT_FDCWD)) throw MigrationIssue("error.item_not_found", disk);
  const auto [apps, rebuiltByScan] = AppManager::loadRecordsTellingSource(disk);
  if (rebuiltByScan && !apps.empty()) printErrorLine(localized("cli.list.rebuilt_by_scan"));
  // Records that name the items under another mount path of this same disk.
  std::map<std::string, DriftedLink> drifted;
  for (auto& link : findDriftedLinks(disk, apps, VolumesRoots::forThisSystem())) drifted.emplace(link.recordId, link);
  if (options.json) {
    nlohmann::ordered_json items = nlohmann::ordered_json::array();
    for (const auto& app : apps) {
      nlohmann::ordered_json item;
      item["id"] = app.id;
      item["name"] = app.appName;
      item["type"] = storedValue(app.itemType);
      item["originalPath"] = app.originalPath;
      item["targetPath"] = app.targetPath;
      item["migratedDate"] = dateText(app.migratedDate);
      if (auto version = AppBundleMetadata::version(app.targetPath)) item["version"] = *version;
      item["link"] = conditionName(conditionOf(app));
      if (auto found = drifted.find(app.id); found != drifted.end()) item["driftedTo"] = found->second.currentTarget;
      nlohmann::ordered_json backups = nlohmann::ordered_json::array();
      for (const auto& backup : app.backupVersions) {
        backups.push_back({{"id", backup.id},
                           {"path", backup.backupPath},
                           {"date", dateText(backup.backupDate)},
                           {"exists", static_cast<bool>(MigrationEntry::read(backup.backupPath, AT_FDCWD))}});
      }
      item["backups"] = backups;
      items.push_back(item);
    }
    printLine(items.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    return kExitSuccess;
  }
  if (apps.empty()) {
    printLine(localizedFormat("cli.list.empty", disk));
    return kExitSuccess;
  }
  for (const auto& app : apps) {
    const auto type = app.itemType == MigratedItemType::application ? "cli.list.type.app" : "cli.list.type.dir";
    printLine(localizedFormat("cli.list.item", app.appName, localized(type)));
    printLine(localizedFormat("cli.list.original", app.originalPath));
    printLine(localizedFormat("cli.list.target", app.targetPath));
    printLine(localizedFormat("cli.list.date", dateText(app.migratedDate)));
    if (auto version = AppBundleMetadata::version(app.targetPath))
      printLine(localizedFormat("cli.list.version", *version));
    if (auto found = drifted.find(app.id); found != drifted.end())
      printLine(localizedFormat("cli.list.link.drifted", found->second.recordedVolume, found->second.currentTarget,
                                shellQuote(disk)));
    else
      printLine(localized(std::string("cli.list.link.") + conditionName(conditionOf(app))));
    for (const auto& backup : app.backupVersions) {
      const bool exists = static_cast<bool>(MigrationEntry::read(backup.backupPath, AT_FDCWD));
      printLine(localizedFormat(exists ? "cli.list.backup" : "cli.list.backup_missing", dateText(backup.backupDate),
                                backup.backupPath));
    }
  }
  return kExitSuccess;
}

}  // namespace

void addListCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<ListOptions>();
  CLI::App* list = app.add_subcommand("list", localized("cli.list.description"));
  list->add_option("--disk", options->disk, localized("cli.list.disk"))->required();
  list->add_flag("--json", options->json, localized("cli.option.json"));
  registry.add(list, [options] { return runList(*options); });
}

}  // namespace corvane
