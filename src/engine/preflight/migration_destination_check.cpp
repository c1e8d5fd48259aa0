#include "engine/preflight/migration_destination_check.h"

#include <sys/stat.h>

#include <algorithm>

#include "engine/migration_issue.h"
#include "support/paths.h"

namespace corvane {

void MigrationDestinationCheck::require(const std::string& source, const std::string& disk,
                                        const std::vector<std::string>& mountPoints) {
  const std::string root = standardizePath(disk);
  struct stat rootStatus {};
  if (stat(root.c_str(), &rootStatus) != 0 || !S_ISDIR(rootStatus.st_mode))
    throw MigrationIssue("migration.preflight.destination_missing", root);
  // The mount table lists real paths; the disk may have been named through a link.
  const std::string resolvedRoot = standardizePath(resolvingSymlinksInPath(root));
  auto listed = [&](const std::string& point) { return standardizePath(point) == resolvedRoot; };
  if (std::none_of(mountPoints.begin(), mountPoints.end(), listed))
    throw MigrationIssue("migration.preflight.destination_not_volume", root);

  const std::string item = standardizePath(source);
  const std::string resolvedItem =
      joinPath(standardizePath(resolvingSymlinksInPath(parentPath(item))), lastComponent(item));
  if (isSameOrDescendant(item, root) || isSameOrDescendant(resolvedItem, resolvedRoot))
    throw MigrationIssue("migration.preflight.source_on_destination", item);
  struct stat itemStatus {};
  if (lstat(item.c_str(), &itemStatus) == 0 && itemStatus.st_dev == rootStatus.st_dev)
    throw MigrationIssue("migration.preflight.destination_same_volume", item);
  // The mount points are compared as text: looking at them could hang on a stalled network or
  // FUSE mount that has nothing to do with the item.
  for (const auto& point : mountPoints) {
    const std::string mounted = standardizePath(point);
    if (isSameOrDescendant(mounted, resolvedItem))
      throw MigrationIssue("migration.preflight.holds_mount_point", mounted);
  }
}

}  // namespace corvane
