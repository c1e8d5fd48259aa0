#include "app/disk_report.h"

#include <map>
#include <nlohmann/json.hpp>

#include "app/user_output.h"
#include "settings/byte_format.h"
#include "settings/localization.h"
#include "support/shell_quote.h"

namespace corvane {
namespace {

std::string ghostSummary(const GhostDirectoryContents& ghost) {
  std::string names;
  for (const auto& name : ghost.firstNames) names += (names.empty() ? "" : ", ") + name;
  return localizedFormat("cli.disks.ghost_contents", ghost.entryCount, formatByteCount(ghost.totalBytes), names);
}

nlohmann::ordered_json toJson(const DiskReport& report) {
  nlohmann::ordered_json disk;
  disk["path"] = report.path;
  disk["label"] = report.label ? nlohmann::ordered_json(*report.label) : nullptr;
  disk["fileSystem"] = report.fileSystem ? nlohmann::ordered_json(*report.fileSystem) : nullptr;
  disk["freeBytes"] = report.freeBytes ? nlohmann::ordered_json(*report.freeBytes) : nullptr;
  disk["destination"] = report.isDestination;
  disk["protected"] = report.isProtected;
  disk["expectedPath"] = report.expectedPath ? nlohmann::ordered_json(*report.expectedPath) : nullptr;
  if (report.ghost) {
    disk["ghost"] = {{"path", *report.expectedPath},
                     {"entries", report.ghost->entryCount},
                     {"bytes", report.ghost->totalBytes},
                     {"firstNames", report.ghost->firstNames}};
  }
  auto links = nlohmann::ordered_json::array();
  for (const auto& link : report.driftedLinks) {
    links.push_back({{"originalPath", link.originalPath},
                     {"recordedTarget", link.recordedTarget},
                     {"currentTarget", link.currentTarget}});
  }
  disk["driftedLinks"] = std::move(links);
  return disk;
}

}  // namespace

void printDriftedLinks(const std::string& disk, const std::vector<DriftedLink>& links) {
  std::map<std::string, std::vector<const DriftedLink*>> byOldPath;
  for (const auto& link : links) byOldPath[link.recordedVolume].push_back(&link);
  for (const auto& [oldPath, group] : byOldPath) {
    printLine(localizedFormat("cli.disks.drifted_links", group.size(), shellQuote(disk), oldPath, shellQuote(oldPath)));
    for (const auto* link : group)
      printLine(
          localizedFormat("cli.disks.drifted_link", link->originalPath, link->recordedTarget, link->currentTarget));
  }
}

void printAccessProblem(const DiskManager& manager) {
  const auto& problem = manager.accessProblem();
  if (!problem) return;
  printErrorLine(localized("disk_authorization.title"));
  printErrorLine(localizedFormat("disk_authorization.unix_hint", problem->destination, problem->failure));
}

void printDiskReports(const std::vector<DiskReport>& reports, bool json) {
  if (json) {
    auto disks = nlohmann::ordered_json::array();
    for (const auto& report : reports) disks.push_back(toJson(report));
    printLine(disks.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    return;
  }
  if (reports.empty()) {
    printLine(localized("cli.disks.none"));
    return;
  }
  for (const auto& report : reports) {
    printLine(
        localizedFormat("cli.disks.disk", report.path, report.label.value_or("-"), report.fileSystem.value_or("-")));
    if (report.freeBytes) printLine(localizedFormat("cli.disks.free", formatByteCount(*report.freeBytes)));
    if (report.isDestination) printLine(localized("cli.disks.destination"));
    printLine(localized(report.isProtected ? "cli.disks.protected" : "cli.disks.unprotected"));
    if (report.ghost) {
      printLine(localizedFormat("cli.disks.ghost", *report.expectedPath, ghostSummary(*report.ghost),
                                shellQuote(*report.expectedPath)));
    } else if (report.expectedPath) {
      printLine(localizedFormat("cli.disks.renamed", *report.expectedPath));
    }
    printDriftedLinks(report.path, report.driftedLinks);
  }
}

}  // namespace corvane
