// Copies an item's tree into its staging payload, deciding per entry what the system's copier
// cannot: sockets are skipped or stop the copy, FIFOs are recreated, links that climb out of
// the item get their new targets, hard links stay hard links. Every created object is recorded
// in the staging area, and progress is credited per file identity so it never goes backwards
// and never counts hard-linked data twice.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "engine/manifest/migration_entry.h"
#include "engine/transfer/migration_staging_area.h"

namespace corvane {

struct MigrationCopyUpdate {
  std::int64_t bytes = 0;    // bytes credited so far
  std::int64_t entries = 0;  // entries finished so far
  std::string path;          // the source path being copied
};

class ProgressFileCopier {
 public:
  using Progress = std::function<void(const MigrationCopyUpdate&)>;
  // Asked between files; returning true stops the copy (the user cancelled).
  using Cancelled = std::function<bool()>;

  // Throws platform::PosixError(EEXIST) when anything exists at `destination`, the first error
  // seen while copying (MigrationIssue or PosixError), or PosixError(ECANCELED) when cancelled.
  static void copy(const std::string& source, const std::string& destination, const MigrationManifest& manifest,
                   const std::set<std::string>& inactiveSockets,
                   const std::map<std::string, std::string>& relocatedLinks, MigrationStagingArea& ownership,
                   const Progress& progress, const Cancelled& cancelled = {});
};

}  // namespace corvane
