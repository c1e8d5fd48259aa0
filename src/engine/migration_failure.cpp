#include "engine/migration_failure.h"

#include <cstring>

#include "engine/migration_issue.h"
#include "engine/preflight/migration_occupancy_description.h"
#include "engine/preflight/migration_open_files.h"
#include "engine/transfer/migration_transfer.h"
#include "platform/posix_error.h"
#include "settings/localization.h"
#include "settings/system_error_text.h"
#include "support/diagnostic_log.h"

namespace corvane {

std::string migrationErrorDescription(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const MigrationTransfer::Failure& transferFailure) {
    return migrationErrorDescription(transferFailure.cause());
  } catch (const MigrationOpenFiles::Blocked& blocked) {
    // The header alone leaves the user guessing which program to close.
    return MigrationOccupancyDescription::message(blocked);
  } catch (const MigrationIssue& issue) {
    return issue.localizedDescription();
  } catch (const platform::PosixError& error) {
    return localizedFormat("error.system", error.path(), localizedSystemError(error.errnoValue()));
  } catch (const std::exception& error) {
    logWarning(std::string("Migration error: ") + error.what());
  } catch (...) {
    logWarning("Migration error: unknown");
  }
  return localized("migration.preflight.operation_failed");
}

bool isMigrationDeferral(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const MigrationTransfer::Failure& transferFailure) {
    return isMigrationDeferral(transferFailure.cause());
  } catch (const MigrationOpenFiles::Blocked&) {
    return true;
  } catch (const MigrationIssue& issue) {
    return issue.key() == "migration.preflight.deferred";
  } catch (...) {
    return false;
  }
}

std::optional<std::string> migrationCleanupPath(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const MigrationTransfer::Failure& transferFailure) {
    return transferFailure.cleanupPath();
  } catch (...) {
    return std::nullopt;
  }
}

}  // namespace corvane
