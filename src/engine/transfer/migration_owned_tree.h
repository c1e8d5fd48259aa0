// Removal of a tree this program created, entry by entry: each object is re-read just before it
// goes and must still be the one recorded, so nothing that appeared or was swapped in is lost.
#pragma once

#include <string>

#include "engine/manifest/migration_entry.h"

namespace corvane {

enum class RemovalScope { wholeTree, contentsOnly };
enum class ChangeTime { compare, ignore };

class MigrationOwnedTree {
 public:
  // Removes `root` (or only what it holds) depth first. `root` must have `expectedRoot`'s
  // identity and every entry must equal its record in `manifest` (keys relative to `root`);
  // the first mismatch stops with "migration.safety.conflict" and leaves the rest in place.
  static void remove(const std::string& root, const MigrationEntry& expectedRoot, const MigrationManifest& manifest,
                     RemovalScope scope, ChangeTime changeTime);

  // Whether `actual` is still the recorded object.
  static bool matches(const MigrationEntry& actual, const MigrationEntry& recorded, ChangeTime changeTime);
};

}  // namespace corvane
