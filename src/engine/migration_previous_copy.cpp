#include "engine/migration_previous_copy.h"

#include <fcntl.h>

#include "catalogue/migrated_backup_catalog.h"
#include "engine/manifest/migration_entry.h"
#include "engine/switch/migration_file_safety.h"
#include "platform/file_system.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {

std::optional<MigrationPreviousCopy> MigrationPreviousCopy::retireIfReplaced(const MigratedApp& record,
                                                                             const std::string& source,
                                                                             const std::string& target,
                                                                             const std::string& disk) {
  using Kind = MigrationEntry::Kind;
  if (standardizePath(record.targetPath) != standardizePath(target)) return std::nullopt;
  const auto item = MigrationEntry::read(source, AT_FDCWD);
  const auto copy = MigrationEntry::read(target, AT_FDCWD);
  if (!item || item->kind == Kind::symbolicLink || !copy || copy->kind == Kind::symbolicLink) return std::nullopt;
  MigrationFileSafety::requireDefinitePath(record.targetPath);
  MigrationFileSafety::requireInsideDisk(target, {disk});
  MigrationFileSafety::requireNoOtherItemInside(target, disk, record.id);
  const std::string version = MigratedBackupCatalog::backupPathFor(target, record.itemType, ReferenceDate::now());
  platform::renameExclusive(target, version);
  logInfo("previous copy " + target + " kept as " + version);
  return MigrationPreviousCopy(standardizePath(target), version, copy->identity());
}

std::string MigrationPreviousCopy::keep() {
  settled_ = true;
  return version_;
}

void MigrationPreviousCopy::putBack() noexcept {
  if (settled_) return;
  settled_ = true;
  try {
    const auto version = MigrationEntry::read(version_, AT_FDCWD);
    if (!version || version->identity() != identity_) return;
    platform::renameExclusive(version_, target_);
  } catch (const std::exception& error) {
    logWarning("previous copy stays at " + version_ + ": " + error.what());
  }
}

}  // namespace corvane
