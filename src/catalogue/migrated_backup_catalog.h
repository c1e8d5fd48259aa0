// Builds and reconciles the list of retained older copies (backup versions) of a migrated item:
// copies are recognised by their names (base + "_backup_" + local "yyyyMMdd_HHmmss") beside the
// item's target, records of vanished copies are kept with exists = false, and the list is
// ordered newest first.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/backup_record.h"
#include "catalogue/migrated_app.h"

namespace corvane {

class MigratedBackupCatalog {
 public:
  MigratedBackupCatalog() = delete;

  static constexpr std::string_view kBackupMarker = "_backup_";

  // The record to store after a migration: the existing record's id, every other field from
  // `newApp`, and both backup lists merged (plus `backupPath`, when given and not listed yet).
  static MigratedApp appByMerging(const MigratedApp& newApp, const std::optional<MigratedApp>& existingApp,
                                  const std::optional<std::string>& backupPath);
  // The record's backup list, de-duplicated by standardized path, refreshed and completed with
  // the copies found beside the target.
  static std::vector<BackupRecord> reconciledRecords(const MigratedApp& app);
  // The date in a candidate's name when it is a backup copy of `target`; absent otherwise.
  static std::optional<ReferenceDate> backupDate(const std::string& candidate, const std::string& target,
                                                 MigratedItemType itemType);
  // "yyyyMMdd_HHmmss" in local time; absent unless the text formats back to itself.
  static std::optional<ReferenceDate> parseTimestamp(std::string_view text);
  static std::string formatTimestamp(ReferenceDate date);
  // Where a copy of `target` made at `date` goes: beside it, named base + "_backup_" +
  // timestamp, with ".app" kept for applications.
  static std::string backupPathFor(const std::string& target, MigratedItemType itemType, ReferenceDate date);

  // Newest first; equal dates by path in the file browser's order.
  static void sortNewestFirst(std::vector<BackupRecord>& backups);
  // Whether two lists differ in length or in any field, position by position.
  static bool differs(const std::vector<BackupRecord>& first, const std::vector<BackupRecord>& second);
};

}  // namespace corvane
