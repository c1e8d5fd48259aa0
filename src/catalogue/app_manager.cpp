#include "catalogue/app_manager.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "catalogue/migrated_apps_file.h"
#include "catalogue/migrated_apps_file_format.h"
#include "catalogue/migrated_backup_catalog.h"
#include "catalogue/transfer_staging_name.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"
#include "support/uuid.h"

namespace corvane {
namespace {

// The mirrored tree below Directories is never deeper than a path on the internal disk.
constexpr int kMaximumDirectoryDepth = 64;

bool isMissingFile(const std::exception& error) {
  const auto* system = dynamic_cast<const std::system_error*>(&error);
  return system != nullptr && system->code() == std::errc::no_such_file_or_directory;
}

// The conflict test: a record stays when its original place is empty (a dangling link counts
// as empty) or holds a link; a real object there means the item is back on the internal disk.
bool originalPlaceIsTaken(const MigratedApp& app) {
  struct stat followed {};
  if (::stat(app.originalPath.c_str(), &followed) != 0) return false;
  struct stat own {};
  if (::lstat(app.originalPath.c_str(), &own) == 0 && S_ISLNK(own.st_mode)) return false;
  return true;
}

std::vector<MigratedApp> withoutConflicts(std::vector<MigratedApp> apps, std::string_view prefix) {
  std::vector<MigratedApp> kept;
  kept.reserve(apps.size());
  for (auto& app : apps) {
    if (originalPlaceIsTaken(app)) {
      logWarning(fmt::format("{} {} 原位置存在真实文件，将其视为未迁移", prefix, app.appName));
      continue;
    }
    kept.push_back(std::move(app));
  }
  return kept;
}

struct DirectoryEntry {
  std::string name;
  bool isDirectory = false;  // the entry itself, links not followed
};

// Throws PosixError when the directory cannot be listed.
std::vector<DirectoryEntry> listDirectory(const std::string& directory) {
  DIR* stream = ::opendir(directory.c_str());
  if (stream == nullptr) platform::throwErrno(directory);
  std::vector<DirectoryEntry> entries;
  errno = 0;
  while (const dirent* entry = ::readdir(stream)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const auto status = platform::statNoFollow(::dirfd(stream), name);
    entries.push_back({name, status && S_ISDIR(status->mode)});
  }
  ::closedir(stream);
  std::sort(entries.begin(), entries.end(),
            [](const DirectoryEntry& first, const DirectoryEntry& second) { return first.name < second.name; });
  return entries;
}

// A name of the form <anything>_backup_<timestamp> is a retained older copy.
bool isBackupName(const std::string& name) {
  const auto marker = name.rfind(MigratedBackupCatalog::kBackupMarker);
  if (marker == std::string::npos) return false;
  return MigratedBackupCatalog::parseTimestamp(
             std::string_view(name).substr(marker + MigratedBackupCatalog::kBackupMarker.size()))
      .has_value();
}

MigratedApp scannedRecord(std::string name, std::string originalPath, std::string targetPath, MigratedItemType type) {
  MigratedApp app;
  app.id = makeUuidString();
  app.appName = std::move(name);
  app.originalPath = std::move(originalPath);
  app.targetPath = std::move(targetPath);
  app.migratedDate = ReferenceDate::now();
  app.itemType = type;
  return app;
}

struct FolderContents {
  // Nothing but folders (hidden entries aside): a folder of the mirrored tree that only leads to
  // migrated items. Such a folder is never taken for an item itself unless its link proves it,
  // so that a guessed record never names a folder holding other items' copies.
  bool onlyFolders = false;
  // A transfer builds an item in it right now, or was interrupted there: the folder is the
  // parent of an item, never one, and taking it for one would hand the transfer's copy to
  // whatever is done with the guess.
  bool holdsTransfer = false;
};

FolderContents folderContents(const std::string& folder) {
  FolderContents contents;
  bool sawFolder = false;
  bool sawOther = false;
  for (const auto& entry : listDirectory(folder)) {
    if (entry.isDirectory && isTransferStagingName(entry.name)) contents.holdsTransfer = true;
    if (entry.name.front() == '.') continue;
    (entry.isDirectory ? sawFolder : sawOther) = true;
  }
  contents.onlyFolders = sawFolder && !sawOther;
  return contents;
}

// A bundle that cannot be listed is still guessed to be an item, as an unlistable folder is.
bool holdsTransfer(const std::string& folder) {
  try {
    return folderContents(folder).holdsTransfer;
  } catch (const std::exception&) {
    return false;
  }
}

std::vector<MigratedApp> scanApplications(const std::string& folder) {
  std::vector<MigratedApp> apps;
  try {
    for (const auto& entry : listDirectory(folder)) {
      const auto dot = entry.name.find_last_of('.');
      if (dot == std::string::npos || dot == 0 || entry.name.substr(dot + 1) != "app") continue;
      if (isBackupName(entry.name.substr(0, dot))) continue;
      if (holdsTransfer(joinPath(folder, entry.name))) {
        logWarning(fmt::format("⚠️ 跳过含有未完成传输的文件夹: {}", joinPath(folder, entry.name)));
        continue;
      }
      apps.push_back(scannedRecord(entry.name, "/Applications/" + entry.name, joinPath(folder, entry.name),
                                   MigratedItemType::application));
    }
  } catch (const std::exception& error) {
    logWarning(fmt::format("⚠️ 扫描 Applications 目录失败: {}", error.what()));
  }
  return apps;
}

// A folder whose original place is a link to it is a migrated item for certain.
bool isProvenItem(const std::string& folder, const std::string& originalPath) {
  const auto original = platform::statNoFollow(AT_FDCWD, originalPath);
  if (!original || !S_ISLNK(original->mode)) return false;
  return standardizePath(resolvingSymlinksInPath(originalPath)) == standardizePath(resolvingSymlinksInPath(folder));
}

void scanMirroredFolder(const std::string& root, const std::string& relative, int depth,
                        std::vector<MigratedApp>& apps) {
  const std::string folder = relative.empty() ? root : joinPath(root, relative);
  for (const auto& entry : listDirectory(folder)) {
    if (!entry.isDirectory) continue;
    if (isTransferStagingName(entry.name)) continue;
    if (isBackupName(entry.name)) continue;
    const std::string childRelative = relative.empty() ? entry.name : joinPath(relative, entry.name);
    const std::string target = joinPath(root, childRelative);
    const std::string original = "/" + childRelative;
    bool proven = false;
    FolderContents contents;
    try {
      proven = isProvenItem(target, original);
      contents = folderContents(target);
    } catch (const std::exception& error) {
      logWarning(fmt::format("⚠️ 扫描 Directories 目录失败: {}", error.what()));
    }
    if (depth < kMaximumDirectoryDepth && !proven && contents.onlyFolders) {
      scanMirroredFolder(root, childRelative, depth + 1, apps);
    } else if (contents.holdsTransfer) {
      logWarning(fmt::format("⚠️ 跳过含有未完成传输的文件夹: {}", target));
    } else {
      apps.push_back(scannedRecord(entry.name, original, target, MigratedItemType::directory));
    }
  }
}

std::vector<MigratedApp> scanDirectories(const std::string& folder) {
  std::vector<MigratedApp> apps;
  try {
    scanMirroredFolder(folder, "", 0, apps);
  } catch (const std::exception& error) {
    logWarning(fmt::format("⚠️ 扫描 Directories 目录失败: {}", error.what()));
  }
  return apps;
}

}  // namespace

AppManager::AppManager(MainQueue& mainQueue) : mainQueue_(mainQueue) {}

AppManager::~AppManager() { lifetime_.reset(); }

void AppManager::notify() { observers_.notify(); }

void AppManager::publish(std::vector<MigratedApp> apps, bool guessed) {
  std::weak_ptr<AppManager*> lifetime = lifetime_;
  mainQueue_.post([lifetime, apps = std::move(apps), guessed]() mutable {
    const auto alive = lifetime.lock();
    if (!alive) return;
    AppManager& manager = **alive;
    manager.migratedApps_ = std::move(apps);
    manager.publishedListGuessed_ = guessed;
    manager.notify();
  });
}

std::string AppManager::getMigratedAppsFilePath(const std::string& disk) {
  try {
    MigratedAppsFile::prepareDirectory(disk);
    logDebug(fmt::format("隐藏目录创建/确认成功: {}", MigratedAppsFile::directoryPath(disk)));
  } catch (const std::exception& error) {
    logWarning(fmt::format("创建隐藏目录失败: {}", error.what()));
  }
  return MigratedAppsFile::currentPath(disk);
}

void AppManager::writeMigratedApps(const std::vector<MigratedApp>& apps, const std::string& filePath) {
  MigratedAppsFile::write(apps, filePath);
}

void AppManager::loadMigratedApps(const std::optional<std::string>& disk) {
  auto loaded = loadRecordsTellingSource(disk);
  publish(std::move(loaded.apps), loaded.rebuiltByScan);
}

std::vector<MigratedApp> AppManager::loadRecords(const std::optional<std::string>& disk) {
  return loadRecordsTellingSource(disk).apps;
}

AppManager::LoadedRecords AppManager::loadRecordsTellingSource(const std::optional<std::string>& disk) {
  if (!disk) return {};
  // Reading creates nothing: on an unplugged disk's empty mount point a hidden folder would
  // make the disk mount elsewhere next time.
  const std::string filePath = MigratedAppsFile::currentPath(*disk);
  try {
    auto decoded = MigratedAppsFile::read(filePath);
    const std::size_t decodedCount = decoded.size();
    auto reconciled = reconcileBackupVersions(withoutConflicts(std::move(decoded), "⚠️ 发现冲突状态:"));
    if (reconciled.changed) {
      try {
        // Completed under the lock, on the list as it is now: another command may have saved
        // a record since it was read.
        const MigratedAppsFile::Lock lock(*disk);
        auto fresh =
            reconcileBackupVersions(withoutConflicts(MigratedAppsFile::read(filePath), "⚠️ 发现冲突状态:"));
        writeMigratedApps(fresh.apps, filePath);
        reconciled.apps = std::move(fresh.apps);
        logInfo("📦 已补全历史版本副本记录");
      } catch (const std::exception& error) {
        logError(fmt::format("保存补全后的副本记录失败: {}", error.what()));
      }
    }
    logInfo(
        fmt::format("📋 从隐藏目录记录文件加载了 {} 个有效迁移项目 (过滤前: {})", reconciled.apps.size(), decodedCount));
    return {std::move(reconciled.apps), false};
  } catch (const std::exception& error) {
    // A disk without records yet is the common case, not a problem.
    logDiagnostic(isMissingFile(error) ? LogLevel::info : LogLevel::warning,
                  fmt::format("从隐藏目录加载失败: {}", error.what()));
  }
  try {
    auto legacy = MigratedAppsFile::readLegacy(*disk);
    auto reconciled =
        reconcileBackupVersions(withoutConflicts(std::move(legacy), "⚠️ 发现冲突状态 (Legacy):"));
    migrateRecordsToNewLocation(reconciled.apps, *disk);
    logInfo(fmt::format("📋 从旧位置加载了 {} 个有效迁移项目", reconciled.apps.size()));
    return {std::move(reconciled.apps), false};
  } catch (const std::exception& error) {
    logDiagnostic(isMissingFile(error) ? LogLevel::info : LogLevel::warning,
                  fmt::format("从旧位置也加载失败: {}", error.what()));
  }
  return {scannedRecords(*disk), true};
}

void AppManager::migrateRecordsToNewLocation(const std::vector<MigratedApp>& apps, const std::string& disk) {
  const std::string filePath = getMigratedAppsFilePath(disk);
  try {
    writeMigratedApps(apps, filePath);
    logInfo(fmt::format("✅ 已将记录迁移到新的隐藏目录: {}", filePath));
  } catch (const std::exception& error) {
    logError(fmt::format("记录迁移失败: {}", error.what()));
    return;
  }
  try {
    MigratedAppsFile::removeLegacy(disk);
    logInfo(fmt::format("✅ 已删除旧记录文件: {}", MigratedAppsFile::legacyPath(disk)));
  } catch (const std::exception& error) {
    logWarning(fmt::format("删除旧记录文件失败: {}", error.what()));
  }
}

void AppManager::scanTargetDiskForMigratedApps(const std::string& disk) { publish(scannedRecords(disk), true); }

std::vector<MigratedApp> AppManager::scannedRecords(const std::string& disk) {
  auto apps = scanApplications(joinPath(disk, "Applications"));
  const std::size_t applicationCount = apps.size();
  auto directories = scanDirectories(joinPath(disk, "Directories"));
  logInfo(fmt::format("🔍 Applications 目录扫描发现 {} 个应用程序", applicationCount));
  logInfo(fmt::format("🔍 Directories 目录扫描发现 {} 个目录", directories.size()));
  for (auto& directory : directories) apps.push_back(std::move(directory));
  logInfo(fmt::format("🔍 总共扫描发现 {} 个已迁移的项目（应用程序+目录）", apps.size()));
  return apps;
}

AppManager::ReconciledApps AppManager::reconcileBackupVersions(std::vector<MigratedApp> apps) {
  ReconciledApps result;
  for (auto& app : apps) {
    auto backups = MigratedBackupCatalog::reconciledRecords(app);
    if (MigratedBackupCatalog::differs(backups, app.backupVersions)) {
      app.backupVersions = std::move(backups);
      result.changed = true;
    }
  }
  result.apps = std::move(apps);
  return result;
}

void AppManager::changeRecordFile(const std::string& disk,
                                  const std::function<void(std::vector<MigratedApp>&)>& change) {
  migratedApps_ = rewriteRecordFile(disk, publishedListGuessed_ ? std::vector<MigratedApp>{} : migratedApps_, change);
  publishedListGuessed_ = false;
  notify();
}

std::vector<MigratedApp> AppManager::rewriteRecordFile(const std::string& disk, std::vector<MigratedApp> apps,
                                                       const std::function<void(std::vector<MigratedApp>&)>& change) {
  const MigratedAppsFile::Lock lock(disk);
  const std::string filePath = getMigratedAppsFilePath(disk);
  try {
    apps = MigratedAppsFile::read(filePath);
  } catch (const std::exception& error) {
    if (!isMissingFile(error)) {
      // The file may only be damaged in a way a later version or a person can still read: it
      // is kept under a dated name rather than overwritten.
      const std::string kept = filePath + ".unreadable_" + MigratedBackupCatalog::formatTimestamp(ReferenceDate::now());
      logWarning(fmt::format("记录文件无法读取，保留为 {}: {}", kept, error.what()));
      platform::renameExclusive(filePath, kept);
    }
  }
  change(apps);
  writeMigratedApps(apps, filePath);
  return apps;
}

bool AppManager::saveMigratedApp(const MigratedApp& appToSave, const std::optional<std::string>& disk,
                                 const std::optional<std::string>& backupPath) {
  // A copy: the caller may pass an element of the list that is about to change.
  const MigratedApp app = appToSave;
  auto merge = [&](std::vector<MigratedApp>& apps) {
    const auto existing = std::find_if(apps.begin(), apps.end(), [&](const MigratedApp& candidate) {
      return candidate.originalPath == app.originalPath;
    });
    if (existing != apps.end()) {
      *existing = MigratedBackupCatalog::appByMerging(app, *existing, backupPath);
      logInfo(fmt::format("✅ 已更新现有记录 (总共 {} 个)", apps.size()));
    } else {
      apps.push_back(MigratedBackupCatalog::appByMerging(app, std::nullopt, backupPath));
      logInfo(fmt::format("✅ 已添加到内存列表 (当前共 {} 个)", apps.size()));
    }
  };
  if (disk) {
    try {
      changeRecordFile(*disk, merge);
      logInfo(fmt::format("💾 已成功保存迁移记录文件: {} (共 {} 个记录)", MigratedAppsFile::currentPath(*disk),
                          migratedApps_.size()));
      return true;
    } catch (const std::exception& error) {
      logError("❌ 保存迁移记录失败: " + MigratedAppsFile::currentPath(*disk));
      logError(fmt::format("错误详情: {}", error.what()));
    }
  }
  merge(migratedApps_);
  notify();
  return false;
}

bool AppManager::removeMigratedApp(const MigratedApp& appToRemove, const std::optional<std::string>& disk) {
  // A copy: the caller may pass an element of the list that is about to shift.
  const MigratedApp app = appToRemove;
  auto remove = [&](std::vector<MigratedApp>& apps) {
    const std::size_t before = apps.size();
    std::erase_if(apps, [&](const MigratedApp& candidate) { return candidate.id == app.id; });
    logInfo(
        fmt::format("🗑️ 删除记录: {} (删除前 {} 个, 删除后 {} 个)", app.appName, before, apps.size()));
  };
  if (!disk) {
    remove(migratedApps_);
    notify();
    return false;
  }
  const std::string filePath = MigratedAppsFile::currentPath(*disk);
  try {
    changeRecordFile(*disk, remove);
  } catch (const std::exception& error) {
    logError(fmt::format("❌ 更新迁移记录文件失败: {}", error.what()));
    remove(migratedApps_);
    notify();
    return false;
  }
  // Read back what reached the disk: a record that survives in the file would return on the next load.
  try {
    const auto readBack = MigratedAppsFile::read(filePath);
    logInfo(fmt::format("✅ 文件验证成功，包含 {} 个记录", readBack.size()));
    const bool stillListed = std::any_of(readBack.begin(), readBack.end(),
                                         [&](const MigratedApp& candidate) { return candidate.id == app.id; });
    if (stillListed) {
      logError(fmt::format("❌ 文件验证失败: {} 仍包含该记录", filePath));
      return false;
    }
    return true;
  } catch (const std::exception& error) {
    logError(fmt::format("❌ 文件验证失败: {}", error.what()));
    return false;
  }
}

bool AppManager::removeMigratedAppAndSaveToAllDisks(const MigratedApp& app,
                                                    const std::vector<std::string>& externalDisks) {
  const std::string id = app.id;
  auto remove = [&](std::vector<MigratedApp>& apps) {
    std::erase_if(apps, [&](const MigratedApp& candidate) { return candidate.id == id; });
  };
  bool allWritten = true;
  // The published list ends as the first disk's, which the catalogue loaded before.
  for (auto disk = externalDisks.rbegin(); disk != externalDisks.rend(); ++disk) {
    try {
      changeRecordFile(*disk, remove);
      logInfo(fmt::format("💾 已更新磁盘记录文件: {}", MigratedAppsFile::currentPath(*disk)));
    } catch (const std::exception& error) {
      logError(fmt::format("❌ 更新迁移记录文件失败: {}: {}", *disk, error.what()));
      allWritten = false;
    }
  }
  remove(migratedApps_);
  notify();
  return allWritten;
}

bool AppManager::isAppSymlink(const MigratedApp& app) {
  try {
    const auto status = platform::statNoFollow(AT_FDCWD, app.originalPath);
    if (!status || !S_ISLNK(status->mode)) return false;
    const std::string text = platform::readLinkText(AT_FDCWD, app.originalPath);
    const std::string destination = !text.empty() && text.front() == '/'
                                        ? standardizePath(text)
                                        : standardizePath(joinPath(parentPath(app.originalPath), text));
    return destination == standardizePath(app.targetPath);
  } catch (const std::exception& error) {
    logDebug(fmt::format("isAppSymlink: {}", error.what()));
    return false;
  }
}

}  // namespace corvane
