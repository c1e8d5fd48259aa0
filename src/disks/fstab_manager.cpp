#include "disks/fstab_manager.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <sstream>

#include "disks/fstab_table.h"
#include "disks/volumes_roots.h"
#include "platform/directory_names.h"
#include "platform/mounted_volumes.h"
#include "platform/no_follow_open.h"
#include "platform/system_integrity.h"
#include "platform/terminal_launcher.h"
#include "support/diagnostic_log.h"

namespace corvane {
namespace {

FstabError fstabError(int code, std::string message, std::string key) {
  return FstabError{code, std::move(message), std::move(key)};
}

// A UUID goes into shell and script texts: only letters, digits and dashes are taken as one.
bool isPlainUuid(const std::string& uuid) {
  return !uuid.empty() && std::all_of(uuid.begin(), uuid.end(), [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
  });
}

std::optional<std::string> mountTableType(const std::string& volumePath) {
  try {
    for (const auto& volume : platform::mountedVolumes()) {
      if (volume.path == volumePath && !volume.fileSystemType.empty()) return volume.fileSystemType;
    }
  } catch (const std::exception& error) {
    logWarning(std::string("获取文件系统类型失败: ") + error.what());
  }
  return std::nullopt;
}

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

FstabManager::Configuration FstabManager::Configuration::forThisSystem() {
  Configuration configuration;
  const char* table = std::getenv("CORVANE_FSTAB");
#ifdef __APPLE__
  configuration.fstabPath = table != nullptr && *table != '\0' ? table : "/private/etc/fstab";
  configuration.runAppleScript = platform::runAppleScript;
#else
  configuration.fstabPath = table != nullptr && *table != '\0' ? table : "/etc/fstab";
#endif
  configuration.volumesRoots = VolumesRoots::forThisSystem().roots();
  configuration.administratorRunner = platform::systemAdministratorRunner();
  configuration.isSIPEnabled = platform::isSystemIntegrityProtectionEnabled;
  configuration.describeVolume = platform::describeVolume;
  return configuration;
}

FstabManager::FstabManager(Configuration configuration) : configuration_(std::move(configuration)) {}

FstabManager& FstabManager::shared() {
  static FstabManager instance(Configuration::forThisSystem());
  return instance;
}

std::optional<std::string> FstabManager::getVolumeUUID(const std::string& volumePath) {
  {
    std::lock_guard lock(cacheLock_);
    if (const auto cached = uuidCache_.find(volumePath); cached != uuidCache_.end()) return cached->second;
  }
  // The volume is examined outside the lock: on macOS that is a child process.
  std::optional<std::string> uuid;
  try {
    uuid = configuration_.describeVolume(volumePath).uuid;
  } catch (const std::exception& error) {
    logError(std::string("获取 UUID 失败: ") + error.what());
    return std::nullopt;
  }
  if (!uuid) return std::nullopt;
  if (!isPlainUuid(*uuid)) {
    logError("获取 UUID 失败: unexpected characters in \"" + *uuid + "\"");
    return std::nullopt;
  }
  std::lock_guard lock(cacheLock_);
  uuidCache_[volumePath] = *uuid;
  return uuid;
}

void FstabManager::forgetVolume(const std::string& volumePath) {
  std::lock_guard lock(cacheLock_);
  uuidCache_.erase(volumePath);
}

std::optional<std::string> FstabManager::getFileSystemType(const std::string& volumePath) {
  try {
    return configuration_.describeVolume(volumePath).fileSystemType;
  } catch (const std::exception& error) {
    logError(std::string("获取文件系统类型失败: ") + error.what());
    return std::nullopt;
  }
}

bool FstabManager::isSIPEnabled() const { return configuration_.isSIPEnabled && configuration_.isSIPEnabled(); }

std::string FstabManager::fstabEntry(const std::string& uuid, const std::string& volumePath,
                                     const std::string& fileSystemType, const std::string& options) {
  std::string mountField;
  for (char c : volumePath) {
    if (c == ' ')
      mountField += "\\040";
    else
      mountField.push_back(c);
  }
  return "UUID=" + uuid + "    " + mountField + "    " + fileSystemType + "    " + options;
}

std::optional<FstabManager::EntryFields> FstabManager::entryFields(const std::string& volumePath) {
  auto uuid = getVolumeUUID(volumePath);
  if (!uuid) return std::nullopt;
  const bool appleScript = configuration_.style == FstabCommandStyle::appleScript;
  auto type = getFileSystemType(volumePath);
  if (!type && !appleScript) type = mountTableType(volumePath);
  const std::string options = appleScript ? "rw,auto" : "rw,nofail";
  return EntryFields{*uuid, fstabEntry(*uuid, volumePath, type.value_or(appleScript ? "apfs" : "auto"), options)};
}

bool FstabManager::isDiskProtected(const std::string& volumePath) {
  const auto uuid = getVolumeUUID(volumePath);
  if (!uuid) {
    logError("❌ 无法获取 UUID: " + volumePath);
    return false;
  }
  std::ifstream stream(configuration_.fstabPath, std::ios::binary);
  if (!stream) return false;
  std::ostringstream table;
  table << stream.rdbuf();
  if (stream.bad()) return false;
  const auto line = protectingFstabLine(table.str(), *uuid);
  if (!line) return false;
  logInfo("✅ 在 fstab 中发现匹配配置: " + *line);
  return true;
}

std::optional<std::string> FstabManager::getProtectionShellCommand(const std::string& volumePath) {
  if (!isWritableInFstab(volumePath)) return std::nullopt;
  const auto fields = entryFields(volumePath);
  if (!fields) return std::nullopt;
  return manualProtectionCommand(configuration_.style, fields->uuid, fields->entry, configuration_.fstabPath);
}

std::optional<FstabError> FstabManager::enableDiskProtection(const std::string& volumePath) {
  logInfo("开始执行 enableDiskProtection, 路径: " + volumePath);
  if (isDiskProtected(volumePath)) return std::nullopt;
  // Before any prompt: the system would refuse the change after the password anyway.
  if (isSIPEnabled())
    return fstabError(-999, "Operation not permitted (SIP Enabled) - Fast Fail", "fstab.error.sip_enabled");
  const auto fields = entryFields(volumePath);
  if (!fields) return fstabError(-1, "无法获取 UUID", "fstab.error.no_uuid");
  logInfo("获取到 UUID: " + fields->uuid);
  if (!isWritableInFstab(volumePath))
    return fstabError(-3, "The volume's path cannot be written in the file table: " + volumePath,
                      "fstab.error.unsupported_path");
  logInfo("准备写入配置: " + fields->entry);
  return configuration_.style == FstabCommandStyle::appleScript ? appendEntryWithAppleScript(fields->entry)
                                                                : appendEntryWithShell(fields->entry, volumePath);
}

std::optional<FstabError> FstabManager::appendEntryWithAppleScript(const std::string& entry) {
  const std::string script = appleScriptProtectionScript(configuration_.fstabPath, entry);
  logInfo("Generated AppleScript: " + script);
  platform::AppleScriptOutcome outcome;
  try {
    outcome = configuration_.runAppleScript(script);
  } catch (const std::exception& error) {
    logError(std::string("❌ NSAppleScript 执行失败: ") + error.what());
    return fstabError(-2, error.what(), "fstab.error.runner");
  }
  if (outcome.succeeded) return std::nullopt;
  const int number = outcome.errorNumber.value_or(-1);
  const std::string message = outcome.errorMessage.value_or("Unknown error");
  logError("❌ NSAppleScript 执行失败: Code " + std::to_string(number) + ", Msg: " + message);
  if (number == -128) return fstabError(-128, "User canceled authorization", "fstab.error.cancelled");
  return fstabError(number, message, "fstab.error.failed");
}

std::optional<FstabError> FstabManager::appendEntryWithShell(const std::string& entry, const std::string& volumePath) {
  const std::string command = shellProtectionCommand(configuration_.fstabPath, entry, volumePath);
  logInfo("Privileged command: " + command);
  platform::AdministratorResult result;
  try {
    result = configuration_.administratorRunner->run(command);
  } catch (const std::exception& error) {
    logError(std::string("❌ Administrator runner failed: ") + error.what());
    return fstabError(-2, error.what(), "fstab.error.runner");
  }
  switch (result.outcome) {
    case platform::AdministratorOutcome::succeeded:
      return std::nullopt;
    case platform::AdministratorOutcome::cancelled:
      return fstabError(-128, "User canceled authorization", "fstab.error.cancelled");
    case platform::AdministratorOutcome::failed:
      break;
  }
  const std::string message = result.output.empty() ? "Unknown error" : result.output;
  logError("❌ Privileged command failed: Code " + std::to_string(result.exitCode) + ", Msg: " + message);
  return fstabError(result.exitCode, message, "fstab.error.failed");
}

void FstabManager::openTerminalAndRun(const std::string& command) { platform::openTerminalAndRun(command); }

bool FstabManager::isMountPoint(const std::string& path) const { return platform::isMountPoint(path); }

std::optional<std::string> FstabManager::getDeviceNode(const std::string& path) const {
  return platform::deviceNodeOf(path);
}

bool FstabManager::checkGhostDirectory(const std::string& path) const {
  // A link is never a ghost directory, whatever it points at.
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || isMountPoint(path)) return false;
  std::vector<std::string> names;
  try {
    const auto directory = platform::openDirectoryNoFollow(path);
    names = platform::directoryNames(directory.get(), path);
  } catch (const std::exception& error) {
    logError(std::string("检查目录内容失败: ") + error.what());
    return false;
  }
  if (names.empty()) return false;
  std::string shown;
  for (std::size_t i = 0; i < names.size() && i < GhostDirectoryContents::kFirstNamesShown; ++i)
    shown += (i == 0 ? "" : ", ") + names[i];
  logWarning("🚨 发现幽灵目录: " + path + ", 包含文件: " + shown);
  return true;
}

std::optional<GhostDirectoryContents> FstabManager::describeGhostDirectory(const std::string& path) const {
  if (!checkGhostDirectory(path)) return std::nullopt;
  try {
    return measureGhostDirectory(path);
  } catch (const std::exception& error) {
    logError(std::string("检查目录内容失败: ") + error.what());
    return std::nullopt;
  }
}

std::optional<FstabError> FstabManager::cleanupGhostDirectory(const std::string& path,
                                                              const GhostDirectoryContents* confirmed) {
  // Every guard runs before any prompt, the mount point first.
  if (isMountPoint(path))
    return fstabError(-999, "Target is a mount point! Aborting cleanup.", "fstab.error.mount_point");
  logInfo("准备清理幽灵目录: " + path);
  // Only a volume's own place ("ROOT/NAME") can be a leftover folder; nothing deeper inside a
  // disk and nothing outside the roots.
  const auto volumePath = VolumesRoots(configuration_.volumesRoots).volumePathOf(path);
  if (!volumePath || *volumePath != withoutTrailingSlash(path))
    return fstabError(-998, "Safety guard: Only /Volumes paths are allowed.", "fstab.error.outside_volumes");
  if (confirmed != nullptr && !isSameGhostDirectory(path, *confirmed))
    return fstabError(-997, "The directory changed after it was shown; nothing was removed: " + path,
                      "fstab.error.changed");
  return runCleanup(path, confirmed);
}

std::optional<FstabError> FstabManager::runCleanup(const std::string& path,
                                                   const GhostDirectoryContents* confirmed) const {
  if (configuration_.style == FstabCommandStyle::appleScript) {
    const auto script = appleScriptGhostCleanupScript(path);
    if (!script)
      return fstabError(-996, "The folder's name holds characters the removal command cannot quote: " + path,
                        "fstab.error.unsafe_path");
    platform::AppleScriptOutcome outcome;
    try {
      outcome = configuration_.runAppleScript(*script);
    } catch (const std::exception& error) {
      logError(std::string("Failed to init AppleScript: ") + error.what());
      return fstabError(-2, "Failed to init AppleScript", "fstab.error.runner");
    }
    if (!outcome.compiled) return fstabError(-2, "Failed to init AppleScript", "fstab.error.runner");
    if (outcome.succeeded) return std::nullopt;
    return fstabError(-1, outcome.errorMessage.value_or("Unknown error"), "fstab.error.cleanup_failed");
  }
  std::optional<std::pair<dev_t, ino_t>> identity;
  if (confirmed != nullptr) identity.emplace(confirmed->device, confirmed->inode);
  platform::AdministratorResult result;
  try {
    result = configuration_.administratorRunner->run(shellGhostCleanupCommand(path, identity));
  } catch (const std::exception& error) {
    return fstabError(-2, error.what(), "fstab.error.runner");
  }
  switch (result.outcome) {
    case platform::AdministratorOutcome::succeeded:
      return std::nullopt;
    case platform::AdministratorOutcome::cancelled:
      return fstabError(-1, "User canceled authorization", "fstab.error.cancelled");
    case platform::AdministratorOutcome::failed:
      break;
  }
  return fstabError(-1, result.output.empty() ? "Unknown error" : result.output, "fstab.error.cleanup_failed");
}

}  // namespace corvane
