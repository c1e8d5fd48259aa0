// Removal of a tree this program created, entry by entry: each object is re-read just before it
// goes and must still be the one recorded, so nothing that appeared or was swapped in is lost.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "engine/manifest/migration_entry.h"
#include "engine/manifest/migration_file_identity.h"

namespace corvane {

enum class RemovalScope { wholeTree, contentsOnly };

class MigrationOwnedTree {
 public:
  // What is kept of an object the program created: everything a comparison needs but its path,
  // its status-change time (hard links and renames move it) and a link's text, which cannot
  // change while the link's inode lives.
  struct Record {
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modifiedSeconds = 0;
    std::int64_t modifiedNanoseconds = 0;
    std::int32_t device = 0;
    std::uint32_t flags = 0;
    std::uint16_t mode = 0;
    MigrationEntry::Kind kind = MigrationEntry::Kind::regular;
    bool present = false;

    static Record of(const MigrationEntry& entry);
    MigrationFileIdentity identity() const { return {device, inode}; }
    // Whether `actual` is still the recorded object.
    bool matches(const MigrationEntry& actual) const;
  };
  // The record of the entry at a path relative to the tree's root; null when there is none.
  using Lookup = std::function<const Record*(const std::string& relativePath)>;

  // Removes `root` (or only what it holds) depth first. `root` must have `expectedRoot`'s
  // identity and kind and every entry must match its record; the first mismatch stops with
  // "migration.safety.conflict" and leaves the rest in place.
  static void remove(const std::string& root, const Record& expectedRoot, const Lookup& recorded, RemovalScope scope);
};

}  // namespace corvane
