#include "disks/fstab_manager.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "disks/fstab_commands.h"
#include "disks/volumes_roots.h"
#include "platform/system_integrity.h"
#include "platform/terminal_launcher.h"
#include "platform/volume_description.h"
#include "support/diagnostic_log.h"

#ifdef __APPLE__
#include "platform/apple_script_runner.h"
#endif

namespace corvane {
namespace {

#ifdef __APPLE__
constexpr const char* kProtectionOptions = "rw,auto";
constexpr bool kEscapeControl = false;
#else
constexpr const char* kProtectionOptions = "rw,nofail";
constexpr bool kEscapeControl = true;
#endif

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

bool equalIgnoringCase(const std::string& left, const std::string& right) {
  return left.size() == right.size() && std::equal(left.begin(), left.end(), right.begin(), [](char a, char b) {
           return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
         });
}

std::vector<std::string> firstNamesIn(const std::string& path, std::size_t limit, bool& listed) {
  std::vector<std::string> names;
  DIR* listing = opendir(path.c_str());
  listed = listing != nullptr;
  if (!listing) return names;
  while (dirent* entry = readdir(listing)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    names.push_back(name);
    if (names.size() >= limit) break;
  }
  closedir(listing);
  return names;
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

FstabError error(int code, std::string message, std::string key) { return {code, std::move(message), std::move(key)}; }

// The UUID goes into command texts, once inside double quotes: only letters, digits and dashes
// (every form the systems print) are taken as one.
bool isPlainUuid(const std::string& uuid) {
  return !uuid.empty() && std::all_of(uuid.begin(), uuid.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-';
  });
}

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

FstabManager::Configuration FstabManager::Configuration::forThisSystem() {
  Configuration configuration;
#ifdef __APPLE__
  configuration.fstabPath = "/private/etc/fstab";
#else
  const char* chosen = std::getenv("CORVANE_FSTAB");
  configuration.fstabPath = chosen != nullptr && chosen[0] == '/' ? chosen : "/etc/fstab";
#endif
  configuration.volumesRoots = VolumesRoots::forThisSystem().roots();
  configuration.administratorRunner = platform::systemAdministratorRunner();
  configuration.isSIPEnabled = [] { return platform::isSystemIntegrityProtectionEnabled(); };
  configuration.describeVolume = [](const std::string& path) { return platform::describeVolume(path); };
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
    if (auto cached = uuidCache_.find(volumePath); cached != uuidCache_.end()) return cached->second;
  }
  try {
    auto uuid = configuration_.describeVolume(volumePath).uuid;
    if (uuid && !isPlainUuid(*uuid)) {
      logWarning("获取 UUID 失败: unexpected characters in \"" + *uuid + "\"");
      return std::nullopt;
    }
    if (uuid) {
      std::lock_guard lock(cacheLock_);
      uuidCache_[volumePath] = *uuid;
    }
    return uuid;
  } catch (const std::exception& failure) {
    logWarning(std::string("获取 UUID 失败: ") + failure.what());
    return std::nullopt;
  }
}

void FstabManager::forgetVolume(const std::string& volumePath) {
  std::lock_guard lock(cacheLock_);
  uuidCache_.erase(volumePath);
}

std::string FstabManager::fstabEntry(const std::string& uuid, const std::string& volumePath,
                                     const std::string& fileSystemType, const std::string& options) {
  return fstabLine(uuid, volumePath, fileSystemType, options, kEscapeControl);
}

std::optional<std::string> FstabManager::fileSystemTypeOf(const std::string& volumePath) const {
  try {
    return configuration_.describeVolume(volumePath).fileSystemType;
  } catch (const std::exception& failure) {
    logWarning(std::string("获取文件系统类型失败: ") + failure.what());
    return std::nullopt;
  }
}

std::string FstabManager::entryFor(const std::string& uuid, const std::string& volumePath) const {
#ifdef __APPLE__
  const std::string fallbackType = "apfs";
#else
  const std::string fallbackType = "auto";
#endif
  return fstabEntry(uuid, volumePath, fileSystemTypeOf(volumePath).value_or(fallbackType), kProtectionOptions);
}

bool FstabManager::isDiskProtected(const std::string& volumePath) {
  const auto uuid = getVolumeUUID(volumePath);
  if (!uuid) {
    logWarning("❌ 无法获取 UUID: " + volumePath);
    return false;
  }
  std::ifstream table(configuration_.fstabPath);
  if (!table) return false;
  const std::string wanted = "UUID=" + *uuid;
  std::string line;
  while (std::getline(table, line)) {
    const std::string text = trimmed(line);
    if (text.empty() || text.front() == '#') continue;
    std::istringstream pieces(text);
    std::string first;
    if (pieces >> first && equalIgnoringCase(first, wanted)) {
      logInfo("✅ 在 fstab 中发现匹配配置: " + text);
      return true;
    }
  }
  return false;
}

std::optional<std::string> FstabManager::getProtectionShellCommand(const std::string& volumePath) {
  const auto uuid = getVolumeUUID(volumePath);
  if (!uuid) return std::nullopt;
#ifdef __APPLE__
  return manualProtectionCommand(*uuid, entryFor(*uuid, volumePath));
#else
  return linuxManualProtectionCommand(*uuid, entryFor(*uuid, volumePath), configuration_.fstabPath);
#endif
}

std::optional<FstabError> FstabManager::enableDiskProtection(const std::string& volumePath) {
  logInfo("开始执行 enableDiskProtection, 路径: " + volumePath);
  if (isDiskProtected(volumePath)) return std::nullopt;
  if (configuration_.isSIPEnabled && configuration_.isSIPEnabled())
    return error(-999, "Operation not permitted (SIP Enabled) - Fast Fail", "fstab.error.sip_enabled");
  const auto uuid = getVolumeUUID(volumePath);
  if (!uuid) return error(-1, "无法获取 UUID", "fstab.error.no_uuid");
  logInfo("获取到 UUID: " + *uuid);
  const std::string line = entryFor(*uuid, volumePath);
  logInfo("准备写入配置: " + line);
#ifdef __APPLE__
  const std::string script = macProtectionAppleScript(configuration_.fstabPath, line);
  logInfo("Generated AppleScript: " + script);
  const auto result = platform::runAppleScript(script);
  if (result.succeeded) return std::nullopt;
  logError("❌ NSAppleScript 执行失败: Code " + std::to_string(result.errorNumber) + ", Msg: " + result.message);
  if (result.errorNumber == -128) return error(-128, "User canceled authorization", "fstab.error.cancelled");
  return error(result.errorNumber, result.message.empty() ? "Unknown error" : result.message, "fstab.error.failed");
#else
  if (!configuration_.administratorRunner) return error(-2, "Unknown error", "fstab.error.runner");
  try {
    const auto result = configuration_.administratorRunner->run(linuxProtectionCommand(configuration_.fstabPath, line));
    switch (result.outcome) {
      case platform::AdministratorOutcome::succeeded:
        return std::nullopt;
      case platform::AdministratorOutcome::cancelled:
        return error(-128, "User canceled authorization", "fstab.error.cancelled");
      case platform::AdministratorOutcome::failed:
        break;
    }
    logError("❌ 写入 fstab 失败: Code " + std::to_string(result.exitCode) + ", Msg: " + result.output);
    return error(result.exitCode, result.output.empty() ? "Unknown error" : result.output, "fstab.error.failed");
  } catch (const std::exception& failure) {
    return error(-2, failure.what(), "fstab.error.runner");
  }
#endif
}

void FstabManager::openTerminalAndRun(const std::string& command) { platform::openTerminalAndRun(command); }

bool FstabManager::isMountPoint(const std::string& path) const { return platform::isMountPoint(path); }

std::optional<std::string> FstabManager::getDeviceNode(const std::string& path) const {
  return platform::deviceNodeOf(path);
}

bool FstabManager::checkGhostDirectory(const std::string& path) const {
  struct stat status {};
  // A link is not a folder left behind, whatever it points to.
  if (lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || isMountPoint(path)) return false;
  bool listed = false;
  const auto names = firstNamesIn(path, 5, listed);
  if (!listed) {
    logWarning("检查目录内容失败: " + path + ": " + std::strerror(errno));
    return false;
  }
  if (names.empty()) return false;
  logWarning("🚨 发现幽灵目录: " + path + ", 包含文件: " + joined(names));
  return true;
}

std::optional<GhostDirectoryContents> FstabManager::describeGhostDirectory(const std::string& path) const {
  if (!checkGhostDirectory(path)) return std::nullopt;
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return std::nullopt;
  GhostDirectoryContents contents;
  contents.device = status.st_dev;
  contents.inode = status.st_ino;
  bool listed = false;
  contents.firstNames = firstNamesIn(path, 5, listed);
  namespace fs = std::filesystem;
  std::error_code failure;
  // Links are not followed and other file systems not entered; a huge tree is counted only so far.
  for (fs::recursive_directory_iterator walk(path, fs::directory_options::skip_permission_denied, failure), end;
       walk != end; walk.increment(failure)) {
    if (failure) break;
    if (++contents.entryCount >= kGhostCountLimit) {
      contents.countStopped = true;
      break;
    }
    struct stat entry {};
    if (lstat(walk->path().c_str(), &entry) != 0) continue;
    if (S_ISREG(entry.st_mode)) contents.totalBytes += entry.st_size;
    if (S_ISDIR(entry.st_mode) && entry.st_dev != status.st_dev) walk.disable_recursion_pending();
  }
  // A walk that ended on an error did not see everything: the count is a lower bound.
  if (failure) contents.countStopped = true;
  return contents;
}

std::optional<FstabError> FstabManager::cleanupRefusal(const std::string& path,
                                                       const GhostDirectoryContents* confirmed) const {
  if (isMountPoint(path)) return error(-999, "Target is a mount point! Aborting cleanup.", "fstab.error.mount_point");
  // Only a disk's own place (a root and one name below it) can hold a leftover folder; nothing
  // deeper, which would be inside a disk, and nothing outside the roots.
  const auto volumePath = VolumesRoots(configuration_.volumesRoots).volumePathOf(path);
  if (!volumePath || *volumePath != withoutTrailingSlash(path))
    return error(-998, "Safety guard: Only /Volumes paths are allowed.", "fstab.error.outside_volumes");
#ifdef __APPLE__
  // The path is written inside double quotes, which leave $, ` and \ active; a quote in the name
  // would end the quoted path and let the rest (a "*", another path) reach rm as root.
  if (path.find_first_of("\"$`\\\n") != std::string::npos)
    return error(-997, "Unsafe characters in path", "fstab.error.unsafe_path");
#endif
  if (confirmed) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_dev != confirmed->device ||
        status.st_ino != confirmed->inode)
      return error(-996, "The folder changed after it was shown", "fstab.error.changed");
  }
  return std::nullopt;
}

std::optional<FstabError> FstabManager::cleanupGhostDirectory(const std::string& path,
                                                              const GhostDirectoryContents* confirmed) {
  if (isMountPoint(path)) return error(-999, "Target is a mount point! Aborting cleanup.", "fstab.error.mount_point");
  logInfo("准备清理幽灵目录: " + path);
  if (auto refusal = cleanupRefusal(path, confirmed)) return refusal;
#ifdef __APPLE__
  const auto result = platform::runAppleScript(macGhostRemovalAppleScript(path));
  if (!result.compiled) return error(-2, "Failed to init AppleScript", "fstab.error.runner");
  if (!result.succeeded)
    return error(-1, result.message.empty() ? "Unknown error" : result.message, "fstab.error.cleanup_failed");
  return std::nullopt;
#else
  if (!configuration_.administratorRunner) return error(-2, "Unknown error", "fstab.error.runner");
  try {
    std::optional<std::pair<dev_t, ino_t> > identity;
    if (confirmed) identity.emplace(confirmed->device, confirmed->inode);
    const auto result = configuration_.administratorRunner->run(linuxGhostRemovalCommand(path, identity));
    if (result.outcome == platform::AdministratorOutcome::succeeded) return std::nullopt;
    if (result.outcome == platform::AdministratorOutcome::cancelled)
      return error(-1, "User canceled authorization", "fstab.error.cancelled");
    return error(-1, result.output.empty() ? "Unknown error" : result.output, "fstab.error.cleanup_failed");
  } catch (const std::exception& failure) {
    return error(-2, failure.what(), "fstab.error.runner");
  }
#endif
}

}  // namespace corvane
