// The record of one migrated item: where it came from, where it lives on the external disk and
// which older copies of it are kept there.
#pragma once

#include <string>
#include <vector>

#include "catalogue/backup_record.h"
#include "catalogue/migrated_item_type.h"
#include "catalogue/reference_date.h"

namespace corvane {

struct MigratedApp {
  std::string id;                  // canonical upper-case UUID; removal goes by it
  std::string appName;             // for applications the bundle's file name, ".app" included
  std::string originalPath;        // where the link now stands; identifies the item when saving
  std::string targetPath;          // the item on the external disk
  std::string rollbackScriptPath;  // empty where there is none
  ReferenceDate migratedDate;
  std::vector<std::string> supportFiles;
  MigratedItemType itemType = MigratedItemType::directory;
  std::vector<BackupRecord> backupVersions;  // newest first

  bool operator==(const MigratedApp&) const = default;
};

}  // namespace corvane
