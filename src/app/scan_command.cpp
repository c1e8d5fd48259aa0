// `corvane scan PATH`: the manifest of one item, as the preflight takes it, without changing
// anything.
#include <fcntl.h>

#include <map>
#include <nlohmann/json.hpp>
#include <unordered_map>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/user_output.h"
#include "engine/manifest/migration_copy_workload.h"
#include "engine/manifest/migration_link_plan.h"
#include "engine/migration_issue.h"
#include "engine/verify/migration_integrity_verifier.h"
#include "platform/file_system.h"
#include "settings/localization.h"
#include "support/byte_format.h"
#include "support/paths.h"

namespace corvane {
namespace {

struct ScanOptions {
  std::string path;
  bool json = false;
};

std::int64_t countHardLinkGroups(const MigrationManifest& manifest) {
  std::unordered_map<MigrationFileIdentity, int> names;
  for (const auto& [path, entry] : manifest) {
    if (entry.kind == MigrationEntry::Kind::regular) ++names[entry.identity()];
  }
  std::int64_t groups = 0;
  for (const auto& [identity, count] : names) groups += count > 1 ? 1 : 0;
  return groups;
}

int runScan(const ScanOptions& options) {
  const std::string root =
      options.path.size() > 1 && options.path.back() == '/' ? parentPath(options.path + "x") : options.path;
  if (!platform::statNoFollow(AT_FDCWD, root)) throw MigrationIssue("error.item_not_found", root);
  const auto manifest =
      MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::allow, ReadableCheck::check, RemovableCheck::check);
  if (options.json) {
    printLine(manifestToJson(manifest).dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    return kExitSuccess;
  }
  const MigrationCopyWorkload workload(manifest, {});
  const auto relocated = MigrationLinkPlan::relocatedTargets(root, manifest);
  printLine(localizedFormat("cli.scan.title", root));
  printLine(localizedFormat("cli.scan.entries", workload.entries));
  printLine(localizedFormat("cli.scan.bytes", formatByteCount(workload.bytes), workload.bytes));
  printLine(localizedFormat("cli.scan.total_bytes", formatByteCount(workload.totalBytes), workload.totalBytes));
  printLine(localizedFormat("cli.scan.hard_link_groups", countHardLinkGroups(manifest)));
  printLine(localizedFormat("cli.scan.relocated_links", relocated.size()));
  for (const auto& [link, target] : relocated) printLine(localizedFormat("cli.scan.relocated_link", link, target));
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
