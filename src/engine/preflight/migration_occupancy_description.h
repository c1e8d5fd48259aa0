// The text the user sees when an item is held open: which processes, why, and which of the
// item's paths; and the localized log lines of the occupancy check.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "engine/preflight/migration_open_files.h"

namespace corvane {

class MigrationOccupancyDescription {
 public:
  // At most this many groups are described; the rest are counted in one line.
  static constexpr std::size_t kGroupLimit = 8;
  // At most this many paths per group; the rest are counted in one line.
  static constexpr std::size_t kPathLimit = 2;

  // A header, then per group its name and process ids, its reasons and up to two paths; lines
  // joined with "\n".
  static std::string message(const MigrationOpenFiles::Blocked& blocked);

  // The group's name as shown: the process or bundle name, or the family's text.
  static std::string groupName(const MigrationOpenFiles::Group& group);

  // One log line: the key's text with the item's name as {0} and `arguments` after it.
  static std::string logLine(const std::string& source, std::string_view key,
                             const std::vector<std::string>& arguments = {});
};

}  // namespace corvane
