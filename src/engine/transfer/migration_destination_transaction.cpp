#include "engine/transfer/migration_destination_transaction.h"

#include <fcntl.h>

#include "engine/migration_issue.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"

namespace corvane {

void MigrationDestinationTransaction::promote(const std::string& payload) {
  auto staged = MigrationEntry::read(payload, AT_FDCWD);
  if (!staged) throw MigrationIssue("error.migration_copy_mismatch", payload);
  try {
    platform::renameExclusive(payload, target_);
  } catch (const platform::PosixError& error) {
    if (error.errnoValue() == EEXIST || error.errnoValue() == ENOTEMPTY) {
      throw MigrationIssue("migration.preflight.target_exists", target_);
    }
    throw;
  }
  payload_ = payload;
  promoted_ = staged;
  ownsTarget_ = true;
  copied_ = true;
}

void MigrationDestinationTransaction::rollback(const std::string& payload) {
  if (!copied_ || !ownsTarget_) return;
  auto current = MigrationEntry::read(target_, AT_FDCWD);
  if (!current) {
    copied_ = false;
    return;
  }
  if (current->identity() != promoted_->identity() || current->kind != promoted_->kind) {
    throw MigrationIssue("migration.safety.conflict", target_);
  }
  platform::renameExclusive(target_, payload);
  copied_ = false;
}

}  // namespace corvane
