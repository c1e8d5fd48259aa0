// Removal of a tree this program created, entry by entry: each object is re-read just before it
// goes and must still be the one recorded, so nothing that appeared or was swapped in is lost.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "engine/manifest/migration_entry.h"
#include "engine/manifest/migration_entry_state.h"
#include "engine/manifest/migration_file_identity.h"

namespace corvane {

enum class RemovalScope { wholeTree, contentsOnly };

class MigrationOwnedTree {
 public:
  // What is kept of an object the program created.
  using Record = MigrationEntryState;
  // The record of the entry at a path relative to the tree's root; null when there is none.
  using Lookup = std::function<const Record*(const std::string& relativePath)>;

  // Removes `root` (or only what it holds) depth first. `root` must have `expectedRoot`'s
  // identity and kind and every entry must match its record; the first mismatch stops with
  // "migration.safety.conflict" and leaves the rest in place.
  static void remove(const std::string& root, const Record& expectedRoot, const Lookup& recorded, RemovalScope scope);
};

}  // namespace corvane
