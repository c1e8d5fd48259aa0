// The manifest walk: one entry per object of a tree, read without following links.
#pragma once

#include <functional>
#include <string>

#include "engine/manifest/migration_entry.h"

namespace corvane {

enum class RuntimeEntries { refuse, allow };
enum class ReadableCheck { skip, check };
enum class RemovableCheck { skip, check };

class MigrationSnapshot {
 public:
  using Visited = std::function<void(const std::string& relativePath)>;

  // Walks the tree at `root` depth first, parent before children, never following a link, and
  // records one entry per object. Throws MigrationIssue ("error.migration_source_changed",
  // "error.migration_special_file", "migration.preflight.unreadable", "migration.preflight.locked",
  // "migration.preflight.not_removable") or platform::PosixError for other system failures.
  static MigrationManifest walk(const std::string& root, RuntimeEntries runtimeEntries, ReadableCheck readable,
                                RemovableCheck removable, const Visited& visited = {});

  using Each = std::function<void(const std::string& relativePath, const MigrationEntry& entry)>;
  // The same walk with the same checks, handing each entry to `each` instead of keeping it, so a
  // comparison with a manifest already held costs no second manifest. An exception thrown by
  // `each` stops the walk.
  static void walkEntries(const std::string& root, RuntimeEntries runtimeEntries, ReadableCheck readable,
                          RemovableCheck removable, const Each& each, const Visited& visited = {});
};

}  // namespace corvane
