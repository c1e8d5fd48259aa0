#include "engine/switch/migration_source_switch.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <optional>

#include "engine/manifest/migration_entry.h"
#include "engine/migration_issue.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"
#include "support/uuid.h"

namespace corvane {
namespace {

using Kind = MigrationEntry::Kind;

std::optional<MigrationEntry> readEntry(const std::string& path) { return MigrationEntry::read(path, AT_FDCWD); }

// The rename that moves the original may move its status-change time; everything else must
// be as it was read.
bool sameOriginal(const MigrationEntry& now, const MigrationEntry& before) {
  return now.kind == before.kind && now.device == before.device && now.inode == before.inode &&
         now.size == before.size && now.modifiedSeconds == before.modifiedSeconds &&
         now.modifiedNanoseconds == before.modifiedNanoseconds && now.link == before.link && now.mode == before.mode &&
         now.flags == before.flags;
}

bool isLinkTo(const std::optional<MigrationEntry>& entry, const std::string& target) {
  return entry && entry->kind == Kind::symbolicLink && entry->link == target;
}

void removeNewLink(const MigrationSwitchOperations& operations, const std::string& link) {
  try {
    operations.removeLink(link);
  } catch (const std::exception& failure) {
    logError(fmt::format("Migration switch could not remove its link {}: {}", link, failure.what()));
  }
}

}  // namespace

MigrationSwitchOperations MigrationSwitchOperations::direct() {
  MigrationSwitchOperations operations;
  operations.create = [](const std::string& link, const std::string& target) {
    if (::symlink(target.c_str(), link.c_str()) != 0) platform::throwErrno(link);
  };
  operations.exchange = [](const std::string& first, const std::string& second) {
    MigrationSourceSwitch::exchange(first, second);
  };
  operations.removeLink = [](const std::string& link) {
    auto entry = readEntry(link);
    if (!entry || entry->kind != Kind::symbolicLink) throw MigrationIssue("error.migration_restore_conflict", link);
    if (::unlink(link.c_str()) != 0) platform::throwErrno(link);
  };
  return operations;
}

std::string MigrationSourceSwitch::install(const std::string& source, const std::string& target,
                                           const std::function<void()>& beforeExchange,
                                           const MigrationSwitchOperations& operations, const std::string& transferID) {
  const std::string original = standardizePath(source);
  const std::string temporary = original + ".corvane_backup_" + (transferID.empty() ? makeUuidString() : transferID);

  const auto expected = readEntry(original);
  if (!expected) throw MigrationIssue("error.migration_source_changed", original);
  const auto copy = readEntry(target);
  if (!copy || copy->kind == Kind::symbolicLink || copy->kind != expected->kind) {
    throw MigrationIssue("error.migration_copy_mismatch", target);
  }

  operations.create(temporary, target);
  try {
    if (!isLinkTo(readEntry(temporary), target)) throw MigrationIssue("error.migration_copy_mismatch", temporary);
    if (beforeExchange) beforeExchange();
    operations.exchange(original, temporary);
  } catch (...) {
    removeNewLink(operations, temporary);
    throw;
  }

  std::optional<MigrationEntry> atSource;
  std::optional<MigrationEntry> atTemporary;
  try {
    atSource = readEntry(original);
    atTemporary = readEntry(temporary);
  } catch (const std::exception& failure) {
    logError(fmt::format("Migration switch could not read back {}: {}", original, failure.what()));
  }
  if (isLinkTo(atSource, target) && atTemporary && sameOriginal(*atTemporary, *expected)) return temporary;

  // Something other than the original was swapped out (it was replaced after it was read), or
  // the new link is not what was made: swap back, so the source path holds again whatever it
  // held, and drop the link.
  logError(fmt::format("Migration switch found an unexpected result at {}; swapping back", original));
  try {
    operations.exchange(original, temporary);
  } catch (const std::exception& failure) {
    logError(fmt::format("Migration switch could not swap back {}: {}", original, failure.what()));
    throw MigrationSwitchStands("error.migration_copy_mismatch", original, temporary);
  }
  removeNewLink(operations, temporary);
  throw MigrationIssue("error.migration_copy_mismatch", original);
}

void MigrationSourceSwitch::exchange(const std::string& first, const std::string& second) {
  if (parentPath(standardizePath(first)) != parentPath(standardizePath(second))) {
    throw MigrationIssue("migration.preflight.atomic_unsupported", first);
  }
  try {
    platform::exchangePaths(first, second);
  } catch (const platform::PosixError& failure) {
    // Whatever the reason, the answer is never two renames.
    logError(fmt::format("Atomic exchange of {} and {} failed: {}", first, second, failure.what()));
    throw MigrationIssue("migration.preflight.atomic_unsupported", first);
  }
}

void MigrationSourceSwitch::promote(const std::string& payload, const std::string& target) {
  if (readEntry(target)) throw MigrationIssue("migration.preflight.target_exists", target);
  try {
    platform::renameExclusive(payload, target);
  } catch (const platform::PosixError& failure) {
    if (failure.errnoValue() == EEXIST) throw MigrationIssue("migration.preflight.target_exists", target);
    throw;
  }
}

}  // namespace corvane
