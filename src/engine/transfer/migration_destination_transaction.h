// Places a finished staged copy at its destination name without ever replacing anything, and
// takes it back into staging on a roll-back so only the staging area's checked removal deletes it.
#pragma once

#include <optional>
#include <string>

#include "engine/manifest/migration_entry.h"

namespace corvane {

class MigrationDestinationTransaction {
 public:
  explicit MigrationDestinationTransaction(std::string target) : target_(std::move(target)) {}

  const std::string& target() const { return target_; }
  bool copied() const { return copied_; }

  // Moves `payload` to the target by exclusive rename; an existing target stops with
  // "migration.preflight.target_exists".
  void promote(const std::string& payload);
  // Moves a promoted copy back to `payload`. The target must still be the object promoted,
  // else "migration.safety.conflict" and nothing is moved.
  void rollback(const std::string& payload);

 private:
  std::string target_;
  bool ownsTarget_ = false;
  std::optional<std::string> payload_;
  std::optional<MigrationEntry> promoted_;
  bool copied_ = false;
};

}  // namespace corvane
