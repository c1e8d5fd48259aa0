#include "app/migrated_item_lookup.h"

#include <fcntl.h>

#include "catalogue/app_manager.h"
#include "catalogue/migrated_apps_file.h"
#include "engine/manifest/migration_entry.h"
#include "engine/migration_issue.h"
#include "support/paths.h"

namespace corvane {
namespace {

// The nearest folder above `path` that holds a record file.
std::optional<std::string> diskHoldingRecordsAbove(const std::string& path) {
  for (std::string candidate = parentPath(path); !candidate.empty() && candidate != "/";
       candidate = parentPath(candidate)) {
    if (MigrationEntry::read(MigratedAppsFile::currentPath(candidate), AT_FDCWD) ||
        MigrationEntry::read(MigratedAppsFile::legacyPath(candidate), AT_FDCWD)) {
      return candidate;
    }
  }
  return std::nullopt;
}

}  // namespace

MigratedItemMatch findMigratedItem(const std::string& pathOrName, const std::optional<std::string>& disk) {
  const bool looksLikePath = pathOrName.find('/') != std::string::npos;
  const std::string path = looksLikePath ? absolutePath(pathOrName) : std::string();
  std::optional<std::string> chosenDisk = disk ? std::optional(standardizePath(absolutePath(*disk))) : std::nullopt;
  if (!chosenDisk && looksLikePath) {
    const auto entry = MigrationEntry::read(path, AT_FDCWD);
    if (entry && entry->kind == MigrationEntry::Kind::symbolicLink && entry->link) {
      const std::string target = entry->link->front() == '/'
                                     ? standardizePath(*entry->link)
                                     : standardizePath(joinPath(parentPath(path), *entry->link));
      chosenDisk = diskHoldingRecordsAbove(target);
    }
  }
  if (!chosenDisk) throw MigrationIssue("cli.item.disk_needed", pathOrName);
  for (const auto& app : AppManager::loadRecords(*chosenDisk)) {
    const bool matches = looksLikePath ? standardizePath(app.originalPath) == path
                                       : app.appName == pathOrName || lastComponent(app.originalPath) == pathOrName;
    if (matches) return MigratedItemMatch{app, *chosenDisk};
  }
  throw MigrationIssue("cli.item.not_found", pathOrName);
}

}  // namespace corvane
