// Proves that a copy equals the scanned source before anything at the source changes. It also
// owns the tree walk that makes a manifest and the test that a source did not change since.
#pragma once

#include <functional>
#include <string>

#include "engine/migration_entry.h"

namespace corvane {

enum class RuntimeEntries { refuse, allow };
enum class ReadableCheck { skip, check };
enum class RemovableCheck { skip, check };

class MigrationIntegrityVerifier {
 public:
  using Visited = std::function<void(const std::string& relativePath)>;

  // Walks the tree at `root` depth first, parent before children, never following a link, and
  // records one entry per object. Throws MigrationIssue ("error.migration_source_changed",
  // "error.migration_special_file", "migration.preflight.unreadable", "migration.preflight.locked",
  // "migration.preflight.not_removable") or platform::PosixError for other system failures.
  static MigrationManifest snapshot(const std::string& root, RuntimeEntries runtimeEntries, ReadableCheck readable,
                                    RemovableCheck removable, const Visited& visited = {});

  // Scans `source` again and throws "error.migration_source_changed" (with the source path)
  // when any entry appeared, vanished or differs from `manifest`.
  static void requireUnchanged(const std::string& source, const MigrationManifest& manifest,
                               const Visited& visited = {});
};

}  // namespace corvane
