#include "engine/switch/migration_file_safety.h"

#include <fcntl.h>

#include "catalogue/app_manager.h"
#include "catalogue/transfer_staging_name.h"
#include "engine/migration_issue.h"
#include "platform/directory_names.h"
#include "platform/item_lock.h"
#include "platform/no_follow_open.h"
#include "support/paths.h"

namespace corvane {

MigrationEntry MigrationFileSafety::requireRestoreLink(const std::string& source, const std::string& target,
                                                       const std::optional<MigrationEntry>& expected) {
  const auto link = MigrationEntry::read(source, AT_FDCWD);
  if (!link || link->kind != MigrationEntry::Kind::symbolicLink) {
    throw MigrationIssue("migration.preflight.restore_not_link", source);
  }
  if (expected && (expected->identity() != link->identity() || expected->link != link->link)) {
    throw MigrationIssue("error.migration_restore_conflict", source);
  }
  const std::string resolvedLink = standardizePath(resolvingSymlinksInPath(source));
  const std::string resolvedTarget = standardizePath(resolvingSymlinksInPath(target));
  if (resolvedLink != resolvedTarget) throw MigrationIssue("migration.preflight.restore_wrong_target", source);
  const auto again = MigrationEntry::read(source, AT_FDCWD);
  if (!again || *again != *link) throw MigrationIssue("error.migration_restore_conflict", source);
  return *link;
}

std::string MigrationFileSafety::requireInsideDisk(const std::string& path, const std::vector<std::string>& disks,
                                                   const std::string& refusal) {
  const std::string item = standardizePath(path);
  for (const auto& disk : disks) {
    const std::string root = standardizePath(disk);
    if (item.empty() || item.front() != '/' || item == root || !isSameOrDescendant(item, root)) continue;
    const auto rootEntry = MigrationEntry::read(root, AT_FDCWD);
    if (!rootEntry || rootEntry->kind != MigrationEntry::Kind::directory) continue;
    bool throughRealFolders = true;
    for (std::string folder = parentPath(item); throughRealFolders && folder != root; folder = parentPath(folder)) {
      const auto entry = MigrationEntry::read(folder, AT_FDCWD);
      throughRealFolders = entry && entry->kind == MigrationEntry::Kind::directory;
    }
    if (throughRealFolders) return root;
  }
  throw MigrationIssue(refusal, item);
}

void MigrationFileSafety::claimItem(const std::string& path, platform::UniqueFd& holder) {
  if (platform::lockItem(path, holder) == platform::ItemLockOutcome::busy) {
    throw MigrationIssue("migration.transfer.item_busy", path);
  }
}

void MigrationFileSafety::requireDefinitePath(const std::string& path) {
  bool definite = !path.empty() && path.front() == '/';
  for (const auto& component : pathComponents(path)) definite = definite && component != "." && component != "..";
  if (!definite) throw MigrationIssue("migration.safety.indefinite_path", path);
}

void MigrationFileSafety::requireNoOtherItemInside(const std::string& target, const std::string& disk,
                                                   const std::string& ownId) {
  const std::string item = standardizePath(target);
  const std::string root = standardizePath(disk);
  for (const auto& other : AppManager::loadRecords(root)) {
    const std::string otherTarget = standardizePath(other.targetPath);
    if (other.id != ownId && otherTarget != item && isSameOrDescendant(otherTarget, item))
      throw MigrationIssue("migration.safety.holds_other_items", item);
  }
  if (isSameOrDescendant(item, root)) {
    for (const auto& component : pathComponents(std::string_view(item).substr(root.size())))
      if (isTransferStagingName(component)) throw MigrationIssue("migration.safety.holds_transfer", item);
  }
  const auto entry = MigrationEntry::read(item, AT_FDCWD);
  if (!entry || entry->kind != MigrationEntry::Kind::directory) return;
  const platform::UniqueFd folder = platform::openDirectoryNoFollow(item);
  if (platform::findFolderBelow(folder.get(), item, isTransferStagingName))
    throw MigrationIssue("migration.safety.holds_transfer", item);
}

}  // namespace corvane
