#include "engine/migration_item_inspector.h"

#include <fcntl.h>

#include <filesystem>
#include <unordered_map>

#include "engine/manifest/migration_link_plan.h"
#include "engine/migration_issue.h"
#include "engine/preflight/migration_occupancy_description.h"
#include "engine/preflight/migration_open_files.h"
#include "engine/verify/migration_integrity_verifier.h"
#include "platform/file_system.h"
#include "support/paths.h"

namespace corvane {
namespace {

std::string absoluteItemPath(const std::string& given) {
  std::string path = given;
  if (path.empty() || path.front() != '/') path = joinPath(std::filesystem::current_path().string(), path);
  return standardizePath(path);
}

std::int64_t countHardLinkGroups(const MigrationManifest& manifest) {
  std::unordered_map<MigrationFileIdentity, int> names;
  for (const auto& [path, entry] : manifest) {
    if (entry.kind == MigrationEntry::Kind::regular) ++names[entry.identity()];
  }
  std::int64_t groups = 0;
  for (const auto& [identity, count] : names) groups += count > 1 ? 1 : 0;
  return groups;
}

}  // namespace

MigrationItemInspector::MigrationItemInspector(MigrationPreflight::Services services)
    : services_(std::move(services)) {}

std::vector<MigrationItemInspector::Readiness> MigrationItemInspector::checkItems(
    const std::vector<std::string>& paths) const {
  std::vector<Readiness> readiness;
  readiness.reserve(paths.size());
  for (const auto& path : paths) readiness.push_back(checkItem(path));
  return readiness;
}

MigrationItemInspector::Readiness MigrationItemInspector::checkItem(const std::string& given) const {
  Readiness readiness;
  readiness.path = absoluteItemPath(given);
  const std::string& item = readiness.path;
  const auto status = platform::statNoFollow(AT_FDCWD, item);
  if (!status) {
    readiness.verdict = Readiness::Verdict::notFound;
    return readiness;
  }
  if (MigrationEntry::kindOfMode(status->mode) == MigrationEntry::Kind::symbolicLink) {
    readiness.verdict = Readiness::Verdict::symbolicLink;
    return readiness;
  }
  MigrationManifest manifest;
  try {
    manifest = MigrationPreflight::scan(item, {});
  } catch (const MigrationIssue& issue) {
    readiness.blockingMessages.push_back(issue.localizedDescription());
    return readiness;
  }
  // Live sockets, git monitors, pipes in use and device files.
  try {
    const auto confirmedFifos = MigrationPreflight::idleFifos(item, manifest, services_.fifosInUse);
    auto assessment = MigrationPreflight::assess(item, manifest, confirmedFifos, {}, services_);
    readiness.inactiveSockets = std::move(assessment.inactiveSockets);
    for (const auto& blocker : assessment.blockers) {
      readiness.blockingMessages.push_back(MigrationPreflight::describe(blocker));
    }
  } catch (const MigrationIssue& issue) {
    readiness.blockingMessages.push_back(issue.localizedDescription());
  }
  // Files other programs hold open.
  try {
    MigrationOpenFiles::requireIdle(item, MigrationOpenFiles::fileIndex(manifest), MigrationOpenFiles::defaultInspect(),
                                    MigrationOpenFiles::noRecheck(), {}, MigrationOpenFiles::defaultIdentify());
  } catch (const MigrationOpenFiles::Blocked& blocked) {
    readiness.blockingMessages.push_back(MigrationOccupancyDescription::message(blocked));
  } catch (const MigrationIssue& issue) {
    readiness.blockingMessages.push_back(issue.localizedDescription());
  }
  readiness.verdict = readiness.blockingMessages.empty() ? Readiness::Verdict::movable : Readiness::Verdict::blocked;
  return readiness;
}

MigrationItemInspector::Scan MigrationItemInspector::scanItem(const std::string& path) {
  Scan scan;
  scan.root = path.size() > 1 && path.back() == '/' ? parentPath(path + "x") : path;
  if (!platform::statNoFollow(AT_FDCWD, scan.root)) throw MigrationIssue("error.item_not_found", scan.root);
  scan.manifest = MigrationIntegrityVerifier::snapshot(scan.root, RuntimeEntries::allow, ReadableCheck::check,
                                                       RemovableCheck::check);
  scan.workload = MigrationCopyWorkload(scan.manifest, {});
  scan.hardLinkGroups = countHardLinkGroups(scan.manifest);
  scan.relocatedLinks = MigrationLinkPlan::relocatedTargets(scan.root, scan.manifest);
  return scan;
}

}  // namespace corvane
