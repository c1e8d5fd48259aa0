#include "disks/link_drift.h"

#include <fcntl.h>
#include <unistd.h>

#include "catalogue/migrated_apps_file.h"
#include "engine/manifest/migration_entry.h"
#include "engine/migration_issue.h"
#include "engine/switch/migration_file_safety.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/volume_description.h"
#include "settings/localization.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"
#include "support/uuid.h"

namespace corvane {
namespace {

// `path` moved from below `from` to below `to`; absent when it is not below `from`.
std::optional<std::string> rebased(const std::string& path, const std::string& from, const std::string& to) {
  if (path.size() <= from.size() || path.compare(0, from.size(), from) != 0 || path[from.size()] != '/')
    return std::nullopt;
  return to + path.substr(from.size());
}

std::string linkDestination(const std::string& link) {
  const std::string text = platform::readLinkText(AT_FDCWD, link);
  return standardizePath(!text.empty() && text.front() == '/' ? text : joinPath(parentPath(link), text));
}

// Replaces the link `expected` describes with one holding `text`. The new link is made beside
// it and exchanged in; the object that came out must be the expected link, else it goes back.
void replaceLink(const std::string& linkPath, const MigrationEntry& expected, const std::string& text) {
  const std::string temporary = joinPath(parentPath(linkPath), ".corvane-relink-" + makeUuidString());
  if (::symlink(text.c_str(), temporary.c_str()) != 0) platform::throwErrno(temporary);
  try {
    platform::exchangePaths(temporary, linkPath);
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
  const auto displaced = MigrationEntry::read(temporary, AT_FDCWD);
  if (!displaced || displaced->identity() != expected.identity()) {
    // Someone replaced the link between the check and the exchange: theirs goes back.
    platform::exchangePaths(temporary, linkPath);
    ::unlink(temporary.c_str());
    throw MigrationIssue("error.migration_restore_conflict", linkPath);
  }
  ::unlink(temporary.c_str());
}

void relinkOne(const std::string& disk, const DriftedLink& link) {
  MigrationFileSafety::requireDefinitePath(link.originalPath);
  MigrationFileSafety::requireInsideDisk(link.currentTarget, {disk});
  if (!MigrationEntry::read(link.currentTarget, AT_FDCWD))
    throw MigrationIssue("error.item_not_found", link.currentTarget);
  const auto current = MigrationEntry::read(link.originalPath, AT_FDCWD);
  if (!current || current->kind != MigrationEntry::Kind::symbolicLink)
    throw MigrationIssue("migration.preflight.restore_not_link", link.originalPath);
  const std::string destination = linkDestination(link.originalPath);
  if (destination != standardizePath(link.currentTarget)) {
    if (destination != standardizePath(link.recordedTarget))
      throw MigrationIssue("migration.preflight.restore_wrong_target", link.originalPath);
    replaceLink(link.originalPath, *current, link.currentTarget);
  }

  const MigratedAppsFile::Lock lock(disk);
  const std::string filePath = MigratedAppsFile::currentPath(disk);
  auto records = MigratedAppsFile::read(filePath);
  for (auto& record : records) {
    if (record.id != link.recordId || record.targetPath != link.recordedTarget) continue;
    record.targetPath = link.currentTarget;
    for (auto& backup : record.backupVersions)
      if (auto moved = rebased(backup.backupPath, link.recordedVolume, disk)) backup.backupPath = *moved;
    MigratedAppsFile::write(records, filePath);
    return;
  }
  throw MigrationIssue("disks.relink.record_changed", link.originalPath);
}

std::string failureText(const std::exception& failure) {
  if (const auto* issue = dynamic_cast<const MigrationIssue*>(&failure)) return issue->localizedDescription();
  return localizedWithDetail("disks.relink.failed", failure.what());
}

}  // namespace

std::vector<DriftedLink> findDriftedLinks(const std::string& disk, const std::vector<MigratedApp>& records,
                                          const VolumesRoots& roots) {
  std::vector<DriftedLink> drifted;
  for (const auto& record : records) {
    const auto recordedVolume = roots.volumePathOf(record.targetPath);
    if (!recordedVolume || *recordedVolume == disk || platform::isMountPoint(*recordedVolume)) continue;
    const auto currentTarget = rebased(record.targetPath, *recordedVolume, disk);
    if (!currentTarget || !MigrationEntry::read(*currentTarget, AT_FDCWD)) continue;
    drifted.push_back(
        {record.id, record.appName, record.originalPath, *recordedVolume, record.targetPath, *currentTarget});
  }
  return drifted;
}

std::vector<DriftedLink> findDriftedLinks(const std::string& disk, const VolumesRoots& roots) {
  try {
    return findDriftedLinks(disk, MigratedAppsFile::read(MigratedAppsFile::currentPath(disk)), roots);
  } catch (const std::exception& error) {
    logDebug(std::string("findDriftedLinks: ") + error.what());
    return {};
  }
}

std::vector<RelinkOutcome> relinkDriftedLinks(const std::string& disk, const VolumesRoots& roots) {
  std::vector<RelinkOutcome> outcomes;
  for (auto& link : findDriftedLinks(disk, roots)) {
    RelinkOutcome outcome{.link = link, .relinked = false, .failure = {}};
    try {
      relinkOne(disk, link);
      outcome.relinked = true;
      logInfo("🔗 " + link.originalPath + " -> " + link.currentTarget);
    } catch (const std::exception& failure) {
      outcome.failure = failureText(failure);
      logWarning(link.originalPath + ": " + failure.what());
    }
    outcomes.push_back(std::move(outcome));
  }
  return outcomes;
}

}  // namespace corvane
