// What a comparison needs of an object the program made or checked, apart from its path, its
// status-change time (hard links, renames and repairs move it) and a link's text (which cannot
// change while the link's inode lives): a few dozen bytes per entry instead of a whole entry.
#pragma once

#include <cstdint>

#include "engine/manifest/migration_entry.h"
#include "engine/manifest/migration_file_identity.h"

namespace corvane {

struct MigrationEntryState {
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t modifiedSeconds = 0;
  std::int64_t modifiedNanoseconds = 0;
  std::int32_t device = 0;
  std::uint32_t flags = 0;
  std::uint16_t mode = 0;
  MigrationEntry::Kind kind = MigrationEntry::Kind::regular;
  bool present = false;  // false: nothing recorded (or the record was dropped)

  static MigrationEntryState of(const MigrationEntry& entry) {
    return {entry.inode,
            entry.size,
            entry.modifiedSeconds,
            entry.modifiedNanoseconds,
            entry.device,
            entry.flags,
            entry.mode,
            entry.kind,
            true};
  }
  MigrationFileIdentity identity() const { return {device, inode}; }
  // Whether `actual` is still the recorded object, unchanged.
  bool matches(const MigrationEntry& actual) const {
    return present && actual.kind == kind && actual.inode == inode && actual.device == device && actual.size == size &&
           actual.modifiedSeconds == modifiedSeconds && actual.modifiedNanoseconds == modifiedNanoseconds &&
           actual.mode == mode && actual.flags == flags;
  }
};

}  // namespace corvane
