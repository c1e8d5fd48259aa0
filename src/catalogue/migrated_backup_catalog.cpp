#include "catalogue/migrated_backup_catalog.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <map>

#include "support/natural_order.h"
#include "support/paths.h"
#include "support/uuid.h"

namespace corvane {
namespace {

// What a file manager's existence test answers: links are followed, so a dangling one is absent.
bool existsFollowingLinks(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

// The extension of a name ("Foo.app" -> "app"); a leading dot alone does not start one.
std::string pathExtension(const std::string& name) {
  const auto dot = name.find_last_of('.');
  if (dot == std::string::npos || dot == 0) return {};
  return name.substr(dot + 1);
}

std::string withoutExtension(const std::string& name) {
  const auto dot = name.find_last_of('.');
  if (dot == std::string::npos || dot == 0) return name;
  return name.substr(0, dot);
}

std::string lowercased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string formatLocalTime(const std::tm& local) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%04d%02d%02d_%02d%02d%02d", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  return buffer;
}

// Adds `backup` under its standardized path unless that path is listed already (the first
// occurrence wins), refreshing whether it exists.
void insertFirstOccurrence(std::map<std::string, BackupRecord>& byPath, const BackupRecord& backup) {
  const std::string path = standardizePath(backup.backupPath);
  if (byPath.count(path) != 0) return;
  BackupRecord refreshed = backup;
  refreshed.backupPath = path;
  refreshed.exists = existsFollowingLinks(path);
  byPath.emplace(path, std::move(refreshed));
}

std::vector<BackupRecord> sortedValues(const std::map<std::string, BackupRecord>& byPath) {
  std::vector<BackupRecord> backups;
  backups.reserve(byPath.size());
  for (const auto& [path, backup] : byPath) backups.push_back(backup);
  MigratedBackupCatalog::sortNewestFirst(backups);
  return backups;
}

// Names in a directory, hidden ones left out; a directory that cannot be listed has none.
std::vector<std::string> visibleNames(const std::string& directory) {
  std::vector<std::string> names;
  DIR* stream = ::opendir(directory.c_str());
  if (stream == nullptr) return names;
  while (const dirent* entry = ::readdir(stream)) {
    if (entry->d_name[0] == '.') continue;
    names.emplace_back(entry->d_name);
  }
  ::closedir(stream);
  return names;
}

}  // namespace

std::optional<ReferenceDate> MigratedBackupCatalog::parseTimestamp(std::string_view text) {
  if (text.size() != 15 || text[8] != '_') return std::nullopt;
  for (std::size_t index = 0; index < text.size(); ++index) {
    if (index != 8 && (text[index] < '0' || text[index] > '9')) return std::nullopt;
  }
  const auto number = [&](std::size_t start, std::size_t length) {
    int value = 0;
    for (std::size_t index = start; index < start + length; ++index) value = value * 10 + (text[index] - '0');
    return value;
  };
  std::tm fields{};
  fields.tm_year = number(0, 4) - 1900;
  fields.tm_mon = number(4, 2) - 1;
  fields.tm_mday = number(6, 2);
  fields.tm_hour = number(9, 2);
  fields.tm_min = number(11, 2);
  fields.tm_sec = number(13, 2);
  fields.tm_isdst = -1;
  const std::time_t moment = std::mktime(&fields);
  // mktime rolls a 13th month or a 25th hour over into the next; formatting the result again
  // shows it, and so does a local time that a clock change skipped.
  std::tm local{};
  if (::localtime_r(&moment, &local) == nullptr) return std::nullopt;
  if (formatLocalTime(local) != text) return std::nullopt;
  return ReferenceDate::fromUnixSeconds(static_cast<double>(moment));
}

std::string MigratedBackupCatalog::formatTimestamp(ReferenceDate date) {
  const auto moment = static_cast<std::time_t>(std::floor(date.unixSeconds()));
  std::tm local{};
  ::localtime_r(&moment, &local);
  return formatLocalTime(local);
}

std::string MigratedBackupCatalog::backupPathFor(const std::string& target, MigratedItemType itemType,
                                                 ReferenceDate date) {
  const std::string standardTarget = standardizePath(target);
  const std::string name = lastComponent(standardTarget);
  const std::string timestamp = formatTimestamp(date);
  const std::string backupName = itemType == MigratedItemType::application
                                     ? withoutExtension(name) + std::string(kBackupMarker) + timestamp + ".app"
                                     : name + std::string(kBackupMarker) + timestamp;
  return joinPath(parentPath(standardTarget), backupName);
}

std::optional<ReferenceDate> MigratedBackupCatalog::backupDate(const std::string& candidate, const std::string& target,
                                                               MigratedItemType itemType) {
  const std::string standardCandidate = standardizePath(candidate);
  const std::string standardTarget = standardizePath(target);
  if (parentPath(standardCandidate) != parentPath(standardTarget)) return std::nullopt;
  std::string base = lastComponent(standardTarget);
  std::string name = lastComponent(standardCandidate);
  if (itemType == MigratedItemType::application) {
    if (lowercased(pathExtension(base)) != "app" || lowercased(pathExtension(name)) != "app") return std::nullopt;
    base = withoutExtension(base);
    name = withoutExtension(name);
  }
  const std::string prefix = base + std::string(kBackupMarker);
  if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
  return parseTimestamp(std::string_view(name).substr(prefix.size()));
}

std::vector<BackupRecord> MigratedBackupCatalog::reconciledRecords(const MigratedApp& app) {
  std::map<std::string, BackupRecord> byPath;
  for (const auto& backup : app.backupVersions) insertFirstOccurrence(byPath, backup);
  const std::string target = standardizePath(app.targetPath);
  const std::string directory = parentPath(target);
  for (const auto& name : visibleNames(directory)) {
    const std::string candidate = joinPath(directory, name);
    const auto date = backupDate(candidate, target, app.itemType);
    if (!date || byPath.count(candidate) != 0) continue;
    byPath.emplace(candidate, BackupRecord{makeUuidString(), candidate, *date, true});
  }
  return sortedValues(byPath);
}

MigratedApp MigratedBackupCatalog::appByMerging(const MigratedApp& newApp,
                                                const std::optional<MigratedApp>& existingApp,
                                                const std::optional<std::string>& backupPath) {
  std::map<std::string, BackupRecord> byPath;
  if (existingApp) {
    for (const auto& backup : existingApp->backupVersions) insertFirstOccurrence(byPath, backup);
  }
  for (const auto& backup : newApp.backupVersions) insertFirstOccurrence(byPath, backup);
  if (backupPath) {
    const std::string path = standardizePath(*backupPath);
    if (byPath.count(path) == 0) {
      // A copy whose name carries no timestamp is dated by the migration it was made before.
      const auto date = backupDate(path, newApp.targetPath, newApp.itemType)
                            .value_or(existingApp ? existingApp->migratedDate : newApp.migratedDate);
      byPath.emplace(path, BackupRecord{makeUuidString(), path, date, existsFollowingLinks(path)});
    }
  }
  MigratedApp merged = newApp;
  if (existingApp) merged.id = existingApp->id;
  merged.backupVersions = sortedValues(byPath);
  return merged;
}

void MigratedBackupCatalog::sortNewestFirst(std::vector<BackupRecord>& backups) {
  std::stable_sort(backups.begin(), backups.end(), [](const BackupRecord& first, const BackupRecord& second) {
    if (first.backupDate != second.backupDate) return first.backupDate > second.backupDate;
    return compareNaturally(first.backupPath, second.backupPath) < 0;
  });
}

bool MigratedBackupCatalog::differs(const std::vector<BackupRecord>& first, const std::vector<BackupRecord>& second) {
  return first != second;
}

}  // namespace corvane
