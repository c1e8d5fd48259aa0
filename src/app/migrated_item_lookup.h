// Finds the record of a migrated item from what the user typed on the command line: a path
// (the link at the original location) or a name, on the disk given or, for a link, on the
// disk that holds the record file above the link's target.
#pragma once

#include <optional>
#include <string>

#include "catalogue/migrated_app.h"

namespace corvane {

struct MigratedItemMatch {
  MigratedApp app;
  std::string disk;
};

// Throws MigrationIssue "cli.item.disk_needed" when no disk can be found and
// "cli.item.not_found" when the disk holds no record of the item.
MigratedItemMatch findMigratedItem(const std::string& pathOrName, const std::optional<std::string>& disk);

}  // namespace corvane
