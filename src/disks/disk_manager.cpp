#include "disks/disk_manager.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "disks/volume_acceptance.h"
#include "disks/write_probe.h"
#include "platform/volume_description.h"
#include "settings/localization.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {
namespace {

std::string fstabFailureText(const FstabError& error) {
  return error.key.empty() ? error.message : localizedWithDetail(error.key, error.message);
}

}  // namespace

DiskManager::Configuration DiskManager::Configuration::forThisSystem() {
  Configuration configuration;
  configuration.volumesRoots = VolumesRoots::forThisSystem();
  configuration.listVolumes = [] { return platform::mountedVolumes(); };
  configuration.mounter.administratorRunner = platform::systemAdministratorRunner();
  return configuration;
}

DiskManager::DiskManager(MainQueue& mainQueue, FstabManager& fstab, Configuration configuration)
    : mainQueue_(mainQueue), fstab_(fstab), configuration_(std::move(configuration)) {
  if (configuration_.watchVolumes) {
    monitor_ = std::make_unique<platform::VolumeMonitor>(
        [this](const platform::VolumeChange& change) { handleVolumeChange(change); });
  }
  detectExternalDisks();
  checkForDriftedDisks();
}

DiskManager::~DiskManager() {
  // Work already queued must find the manager gone; threads stop at their next check.
  lifetime_.reset();
  monitor_.reset();
  pollingTimer_.reset();
}

std::function<void()> DiskManager::guarded(std::function<void(DiskManager&)> work) {
  return [lifetime = weakSelf_, work = std::move(work)] {
    if (const auto alive = lifetime.lock()) work(**alive);
  };
}

void DiskManager::runInBackground(std::function<void(const std::stop_token&)> work) {
  std::erase_if(backgroundWork_, [](const BackgroundWork& running) { return running.finished->load(); });
  auto finished = std::make_shared<std::atomic<bool>>(false);
  backgroundWork_.push_back({finished, std::jthread([work = std::move(work), finished](std::stop_token stop) {
                               work(stop);
                               finished->store(true);
                             })});
}

// The monitor's thread: the flags and the write probe are checked here, the list changes on
// the owner's thread.
void DiskManager::handleVolumeChange(const platform::VolumeChange& change) {
  if (change.kind == platform::VolumeChange::Kind::disappeared) {
    mainQueue_.post(guarded([path = change.path](DiskManager& manager) { manager.handleDiskDisappeared(path); }));
    return;
  }
  const auto verdict = judgeAppearedVolume(change, configuration_.volumesRoots);
  if (!verdict.accepted) {
    logInfo(verdict.refusalLog);
    return;
  }
  if (probeWrite(change.path, kWritabilityProbePrefix)) {
    logWarning("⚠️ 磁盘不可写，已跳过: " + change.path);
    return;
  }
  mainQueue_.post(guarded([path = change.path](DiskManager& manager) { manager.handleDiskAppeared(path); }));
}

void DiskManager::handleDiskAppeared(const std::string& path) {
  if (addExternalDisk(path)) notify(DiskChange::externalDisks);
  checkForDriftedDisks();
}

void DiskManager::handleDiskDisappeared(const std::string& path) {
  const auto removed = std::erase(externalDisks_, path);
  fstab_.forgetVolume(path);
  if (destinationPath_ == path) {
    destinationPath_.reset();
    accessProblem_.reset();
    notify(DiskChange::destination);
  }
  if (removed > 0) notify(DiskChange::externalDisks);
  logInfo("📤 外部磁盘已移除: " + path);
}

bool DiskManager::addExternalDisk(const std::string& path) {
  if (std::find(externalDisks_.begin(), externalDisks_.end(), path) != externalDisks_.end()) return false;
  externalDisks_.push_back(path);
  logInfo("🔍 检测到外部磁盘: " + path);
  return true;
}

void DiskManager::detectExternalDisks() {
  externalDisks_.clear();
  std::vector<platform::MountedVolume> volumes;
  try {
    volumes = configuration_.listVolumes();
  } catch (const std::exception& error) {
    logError(std::string("⚠️ 检测磁盘属性失败: ") + error.what());
  }
  for (const auto& volume : volumes) {
    if (volume.propertyError) {
      logWarning("⚠️ 检测磁盘属性失败: " + *volume.propertyError);
      continue;
    }
    const auto verdict = judgeScannedVolume(volume, configuration_.volumesRoots);
    if (!verdict.accepted) {
      if (!verdict.refusalLog.empty()) logInfo(verdict.refusalLog);
      continue;
    }
    if (probeWrite(volume.path, kWritabilityProbePrefix)) {
      logWarning("⚠️ 磁盘不可写，已跳过: " + volume.path);
      continue;
    }
    addExternalDisk(volume.path);
  }
  notify(DiskChange::externalDisks);
  if (destinationPath_ || externalDisks_.empty()) return;
  destinationPath_ = externalDisks_.front();
  logInfo("🎯 自动选择外部磁盘: " + *destinationPath_);
  notify(DiskChange::destination);
  verifyAndRefreshExternalDiskAccess();
}

void DiskManager::setDestinationPath(std::optional<std::string> path) {
  if (path == destinationPath_) return;
  destinationPath_ = std::move(path);
  accessProblem_.reset();
  notify(DiskChange::destination);
  if (destinationPath_)
    verifyAndRefreshExternalDiskAccess();
  else
    setProtected(false);
}

void DiskManager::verifyAndRefreshExternalDiskAccess() {
  if (!destinationPath_) return;
  if (const auto failure = probeWrite(*destinationPath_, kAccessProbePrefix)) {
    logError("❌ 外部磁盘访问权限不足: " + *failure);
    logInfo("💡 正在申请外部磁盘访问权限...");
    mainQueue_.post(
        guarded([failure = *failure](DiskManager& manager) { manager.requestPermanentDiskAccess(failure); }));
    return;
  }
  logInfo("✅ 外部磁盘访问权限已获得，可以正常写入");
  if (accessProblem_) {
    accessProblem_.reset();
    notify(DiskChange::access);
  }
  checkDiskProtectionStatus();
}

// There is no folder grant on Linux, and on macOS the panel belongs to the front end: the
// manager publishes the problem and the front end reports the answer through grantDiskAccess.
void DiskManager::requestPermanentDiskAccess(const std::string& failure) {
  if (!destinationPath_) return;
  accessProblem_ = DiskAccessProblem{*destinationPath_, failure};
  notify(DiskChange::access);
}

void DiskManager::grantDiskAccess(std::optional<std::string> grantedFolder) {
  if (accessProblem_) {
    accessProblem_.reset();
    notify(DiskChange::access);
  }
  if (!grantedFolder) {
    logInfo("❌ 用户取消了权限授权");
    return;
  }
  if (grantedFolder != destinationPath_) {
    destinationPath_ = std::move(grantedFolder);
    notify(DiskChange::destination);
  }
  logInfo("✅ 外部磁盘访问权限已授权");
  verifyAndRefreshExternalDiskAccess();
}

void DiskManager::setProtected(bool isProtected) {
  if (isCurrentDiskProtected_ == isProtected) return;
  isCurrentDiskProtected_ = isProtected;
  notify(DiskChange::protection);
}

void DiskManager::checkDiskProtectionStatus() {
  if (!destinationPath_) {
    setProtected(false);
    return;
  }
  runInBackground([this, destination = *destinationPath_, queue = &mainQueue_](const std::stop_token&) {
    const bool isProtected = fstab_.isDiskProtected(destination);
    queue->post(guarded([destination, isProtected](DiskManager& manager) {
      manager.setProtected(isProtected);
      logInfo("🛡️ 磁盘保护状态: " + lastComponent(destination) + " -> " +
              (isProtected ? "已开启" : "未开启"));
    }));
  });
}

void DiskManager::enableDiskProtection(Completion completion) {
  if (!destinationPath_) {
    completion(false, localized("disk.protection.no_destination"));
    return;
  }
  runInBackground([this, destination = *destinationPath_, completion = std::move(completion)](const std::stop_token&) {
    auto error = fstab_.enableDiskProtection(destination);
    mainQueue_.post(guarded([error = std::move(error), completion](DiskManager& manager) {
      if (error) {
        logError("❌ 启用磁盘保护失败: " + error->message);
        manager.setProtected(false);
        completion(false, fstabFailureText(*error));
      } else {
        manager.setProtected(true);
        completion(true, std::nullopt);
      }
    }));
  });
}

std::optional<std::string> DiskManager::getManualProtectionCommand() {
  if (!destinationPath_) return std::nullopt;
  return fstab_.getProtectionShellCommand(*destinationPath_);
}

void DiskManager::startProtectionPolling() {
  stopProtectionPolling();
  pollingCount_ = 0;
  pollingTimer_ = std::make_unique<std::jthread>(
      [interval = configuration_.pollingInterval, queue = &mainQueue_, this](std::stop_token stop) {
        std::mutex mutex;
        std::condition_variable_any wake;
        std::unique_lock lock(mutex);
        while (!wake.wait_for(lock, stop, interval, [] { return false; })) {
          if (stop.stop_requested()) return;
          queue->post(guarded([](DiskManager& manager) { manager.pollingTick(); }));
        }
      });
  notify(DiskChange::polling);
}

void DiskManager::stopProtectionPolling() {
  if (!pollingTimer_) return;
  pollingTimer_.reset();
  notify(DiskChange::polling);
}

void DiskManager::pollingTick() {
  // A tick queued just before the timer stopped finds it gone.
  if (!pollingTimer_) return;
  ++pollingCount_;
  if (pollingCount_ < configuration_.maxPollingCount && !isCurrentDiskProtected_)
    checkDiskProtectionStatus();
  else
    stopProtectionPolling();
}

void DiskManager::setShowProtectionSuggestion(bool show) {
  if (showProtectionSuggestion_ == show) return;
  showProtectionSuggestion_ = show;
  notify(DiskChange::suggestion);
}

ProtectionGate DiskManager::protectionGate() {
  if (!destinationPath_) {
    logWarning("未选择目标磁盘");
    return ProtectionGate::noDestination;
  }
  if (sessionSkipProtection_) return ProtectionGate::start;
  if (fstab_.isDiskProtected(*destinationPath_)) {
    logInfo("✅ Live Check Pass: Disk is actually protected.");
    setProtected(true);
    return ProtectionGate::start;
  }
  setShowProtectionSuggestion(true);
  return ProtectionGate::suggest;
}

void DiskManager::skipProtectionForSession() {
  setShowProtectionSuggestion(false);
  if (sessionSkipProtection_) return;
  sessionSkipProtection_ = true;
  logInfo("👀 用户选择本次跳过保护提示");
  notify(DiskChange::protection);
}

void DiskManager::checkForDriftedDisks() {
  publishDrift(scanForDriftedDisks(externalDisks_, configuration_.volumesRoots, fstab_));
}

void DiskManager::publishDrift(DriftFindings findings) {
  // The device map is replaced with the scan: a node remembered from an earlier scan may name
  // another disk by now, and the repair unmounts what it names.
  driftDisksMap_ = std::move(findings.driftDisksMap);
  ghostDisks_ = std::move(findings.ghostDisks);
  ghostPaths_ = std::move(findings.ghostPaths);
  renamedDisks_ = std::move(findings.renamedDisks);
  notify(DiskChange::drift);
}

void DiskManager::fixGhostDirectory(const std::string& path, Completion completion,
                                    std::optional<GhostDirectoryContents> confirmed) {
  logInfo("开始执行智能修复: " + path);
  std::optional<std::string> node;
  if (auto found = driftDisksMap_.find(path); found != driftDisksMap_.end()) node = found->second;
  repairDrift(path, node, true, std::move(completion), std::move(confirmed));
}

void DiskManager::remountDriftedDisk(const std::string& disk, const std::string& expectedPath, Completion completion,
                                     std::optional<GhostDirectoryContents> confirmed) {
  logInfo("开始执行智能修复: " + expectedPath);
  const auto node = fstab_.getDeviceNode(disk);
  if (!node || !platform::isMountPoint(disk)) {
    completion(false, localizedFormat("disks.remount.no_device", disk));
    return;
  }
  // A folder there that holds files must go first (and only the one the user was shown); an
  // empty one or none is mounted over as it is.
  repairDrift(expectedPath, node, fstab_.checkGhostDirectory(expectedPath), std::move(completion),
              std::move(confirmed));
}

void DiskManager::repairDrift(const std::string& path, std::optional<std::string> node, bool removeGhost,
                              Completion completion, std::optional<GhostDirectoryContents> confirmed) {
  // The guards of the removal run before the disk is unmounted, so a refused path leaves the
  // disk where it is.
  if (removeGhost) {
    if (auto refusal = fstab_.cleanupRefusal(path, confirmed ? &*confirmed : nullptr)) {
      completion(false, fstabFailureText(*refusal));
      return;
    }
  } else if (!configuration_.volumesRoots.contains(path) || platform::isMountPoint(path)) {
    completion(false, localizedFormat("disks.remount.refused", path));
    return;
  }
  runInBackground(
      [this, path, node, removeGhost, confirmed, completion = std::move(completion)](const std::stop_token&) {
        platform::VolumeMounter mounter(configuration_.mounter);
        if (node) {
          logInfo("🔗 关联漂移设备: " + *node);
          const auto unmounted = mounter.unmount(*node);
          if (!unmounted.launched)
            logError("执行过程出错: " + unmounted.error);
          else if (unmounted.exitStatus == 0)
            logInfo("✅ 漂移盘卸载成功");
          else
            logWarning("⚠️ 卸载可能失败，尝试继续清理...");
        } else {
          logWarning("⚠️ 未找到关联的设备节点，退化为普通清理");
        }
        if (removeGhost) {
          if (auto failure = fstab_.cleanupGhostDirectory(path, confirmed ? &*confirmed : nullptr)) {
            mainQueue_.post(guarded([failure = std::move(*failure), completion](DiskManager&) {
              completion(false, fstabFailureText(failure));
            }));
            return;
          }
          logInfo("✅ 幽灵目录清理成功");
        }
        bool remounted = false;
        if (node) remounted = mounter.mount(*node, path).exitStatus == 0;
        mainQueue_.post(guarded([node, remounted, completion](DiskManager& manager) {
          manager.checkForDriftedDisks();
          if (!node) {
            completion(true, localized("ghost_files.repair.no_device"));
            return;
          }
          manager.detectExternalDisks();
          completion(true, remounted ? std::nullopt : std::optional(localized("ghost_files.repair.remount_failed")));
        }));
      });
}

}  // namespace corvane
