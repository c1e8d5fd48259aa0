// `corvane scan PATH`: the manifest of one item as the preflight takes it, with its totals;
// changes nothing.
#include <nlohmann/json.hpp>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/user_output.h"
#include "engine/migration_item_inspector.h"
#include "settings/byte_format.h"
#include "settings/localization.h"

namespace corvane {
namespace {

struct ScanOptions {
  std::string path;
  bool json = false;
};

int runScan(const ScanOptions& options) {
  const auto scan = MigrationItemInspector::scanItem(options.path);
  if (options.json) {
    printLine(manifestToJson(scan.manifest).dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    return kExitSuccess;
  }
  printLine(localizedFormat("cli.scan.title", scan.root));
  printLine(localizedFormat("cli.scan.entries", scan.workload.entries));
  printLine(localizedFormat("cli.scan.bytes", formatByteCount(scan.workload.bytes), scan.workload.bytes));
  printLine(
      localizedFormat("cli.scan.total_bytes", formatByteCount(scan.workload.totalBytes), scan.workload.totalBytes));
  printLine(localizedFormat("cli.scan.hard_link_groups", scan.hardLinkGroups));
  printLine(localizedFormat("cli.scan.relocated_links", scan.relocatedLinks.size()));
  for (const auto& [link, target] : scan.relocatedLinks) {
    printLine(localizedFormat("cli.scan.relocated_link", link, target));
  }
  return kExitSuccess;
}

}  // namespace

void addScanCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<ScanOptions>();
  CLI::App* scan = app.add_subcommand("scan", localized("cli.scan.description"));
  scan->add_option("path", options->path, localized("cli.scan.path"))->required();
  scan->add_flag("--json", options->json, localized("cli.option.json"));
  registry.add(scan, [options] { return runScan(*options); });
}

}  // namespace corvane
