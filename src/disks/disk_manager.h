// The one observable object that knows which external volumes are attached, which of them is
// the migration destination, whether the program may write there, and whether the destination is
// protected by a file-table entry; it also finds drifted disks and ghost directories and repairs
// them. State is published as values with change notifications on the thread that drains the
// MainQueue; probes, protection checks and repairs run on background threads and post back.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "disks/drift_detection.h"
#include "disks/fstab_manager.h"
#include "disks/volumes_roots.h"
#include "platform/mounted_volumes.h"
#include "platform/volume_monitor.h"
#include "platform/volume_mounting.h"
#include "support/main_queue.h"
#include "support/observer_list.h"

namespace corvane {

// What changed, for observers that redraw only part of what they show.
enum class DiskChange { externalDisks, destination, access, protection, suggestion, drift, polling };

// The destination refused a test write: what to show, and what the user can do about it.
struct DiskAccessProblem {
  std::string destination;
  std::string failure;  // the system's description
  bool operator==(const DiskAccessProblem&) const = default;
};

// What the protection gate decided before a migration.
enum class ProtectionGate {
  noDestination,  // no disk chosen: the migration does not start
  start,          // protected, or the user skipped the suggestion for this run
  suggest,        // ask: enable protection, or skip for this run
};

class DiskManager {
 public:
  using RenameEvent = corvane::RenameEvent;
  using Completion = std::function<void(bool success, std::optional<std::string> message)>;

  struct Configuration {
    VolumesRoots volumesRoots{{}};
    std::function<std::vector<platform::MountedVolume>()> listVolumes;
    // Watch for disks coming and going (a one-shot command does without).
    bool watchVolumes = true;
    platform::VolumeMounter::Configuration mounter;
    std::chrono::milliseconds pollingInterval{1000};
    int maxPollingCount = 60;
    // This system's roots, volume list and mounter.
    static Configuration forThisSystem();
  };
  using Observer = std::function<void(DiskChange)>;

  // Rescans and looks for drift at once. `mainQueue` and `fstab` must outlive the manager.
  DiskManager(MainQueue& mainQueue, FstabManager& fstab, Configuration configuration);
  // Stops watching and polling and waits for background work.
  ~DiskManager();
  DiskManager(const DiskManager&) = delete;
  DiskManager& operator=(const DiskManager&) = delete;

  const std::vector<std::string>& externalDisks() const { return externalDisks_; }
  const std::optional<std::string>& destinationPath() const { return destinationPath_; }
  // Set while the destination refuses writes; the front end asks for access with the
  // "disk_authorization" texts and reports the folder the user granted.
  const std::optional<DiskAccessProblem>& accessProblem() const { return accessProblem_; }
  bool isCurrentDiskProtected() const { return isCurrentDiskProtected_; }
  bool sessionSkipProtection() const { return sessionSkipProtection_; }
  bool showProtectionSuggestion() const { return showProtectionSuggestion_; }
  const std::vector<std::string>& ghostPaths() const { return ghostPaths_; }
  const std::vector<RenameEvent>& renamedDisks() const { return renamedDisks_; }
  const std::map<std::string, std::string>& driftDisksMap() const { return driftDisksMap_; }
  // For each ghost path, where the disk that belongs there is mounted now.
  const std::map<std::string, std::string>& ghostDisks() const { return ghostDisks_; }
  int pollingCount() const { return pollingCount_; }
  bool isPolling() const { return static_cast<bool>(pollingTimer_); }
  const VolumesRoots& volumesRoots() const { return configuration_.volumesRoots; }
  FstabManager& fstab() { return fstab_; }

  [[nodiscard]] Subscription observe(Observer observer) { return observers_.add(std::move(observer)); }

  // Full rescan; keeps a chosen destination even when it is no longer found.
  void detectExternalDisks();
  // The disk screen's choice; the access probe runs for a new destination.
  void setDestinationPath(std::optional<std::string> path);
  // Write-permission probe of the destination; on success the protection state is refreshed.
  void verifyAndRefreshExternalDiskAccess();
  // The folder the user granted access to; it becomes the destination when it differs, and the
  // access is probed again. Absent: the user cancelled.
  void grantDiskAccess(std::optional<std::string> grantedFolder);
  void checkDiskProtectionStatus();
  void enableDiskProtection(Completion completion);
  std::optional<std::string> getManualProtectionCommand();
  // Polls the protection state once per interval until it holds or the ticks run out.
  void startProtectionPolling();
  void stopProtectionPolling();
  void setShowProtectionSuggestion(bool show);

  // Before a migration: asks the file table live unless the user skipped it for this run.
  ProtectionGate protectionGate();
  // The suggestion's "skip": no more suggestions during this run of the program.
  void skipProtectionForSession();

  void checkForDriftedDisks();
  // Unmounts the drifted disk, removes the ghost directory and mounts the disk again. When
  // `confirmed` is given, the directory must still be the one the user was shown.
  void fixGhostDirectory(const std::string& path, Completion completion,
                         std::optional<GhostDirectoryContents> confirmed = std::nullopt);
  // The same repair for a disk whose links name an old mount path (`expectedPath`) that no vote
  // found: the disk mounted at `disk` is unmounted and mounted at `expectedPath`, after the
  // ghost folder there (if one holds files, and only the one the user was shown) is removed.
  void remountDriftedDisk(const std::string& disk, const std::string& expectedPath, Completion completion,
                          std::optional<GhostDirectoryContents> confirmed = std::nullopt);

 private:
  using Lifetime = std::weak_ptr<DiskManager*>;
  void handleVolumeChange(const platform::VolumeChange& change);
  void handleDiskAppeared(const std::string& path);
  void handleDiskDisappeared(const std::string& path);
  // False when the disk is listed already.
  bool addExternalDisk(const std::string& path);
  void requestPermanentDiskAccess(const std::string& failure);
  void setProtected(bool isProtected);
  void publishDrift(DriftFindings findings);
  void pollingTick();
  void repairDrift(const std::string& path, std::optional<std::string> node, bool removeGhost, Completion completion,
                   std::optional<GhostDirectoryContents> confirmed);
  void notify(DiskChange change) { observers_.notify(change); }
  // Runs `work` on a background thread; what it posts runs only while the manager exists.
  void runInBackground(std::function<void(const std::stop_token&)> work);
  std::function<void()> guarded(std::function<void(DiskManager&)> work);

  MainQueue& mainQueue_;
  FstabManager& fstab_;
  Configuration configuration_;

  std::vector<std::string> externalDisks_;
  std::optional<std::string> destinationPath_;
  std::optional<DiskAccessProblem> accessProblem_;
  bool isCurrentDiskProtected_ = false;
  bool sessionSkipProtection_ = false;
  bool showProtectionSuggestion_ = false;
  std::vector<std::string> ghostPaths_;
  std::vector<RenameEvent> renamedDisks_;
  std::map<std::string, std::string> driftDisksMap_;
  std::map<std::string, std::string> ghostDisks_;
  int pollingCount_ = 0;

  ObserverList<DiskChange> observers_;
  std::shared_ptr<DiskManager*> lifetime_ = std::make_shared<DiskManager*>(this);
  // Never changed after construction, so any thread may read it to wrap work for the queue.
  const Lifetime weakSelf_{lifetime_};
  std::unique_ptr<std::jthread> pollingTimer_;
  struct BackgroundWork {
    std::shared_ptr<std::atomic<bool>> finished;
    std::jthread thread;
  };
  std::vector<BackgroundWork> backgroundWork_;
  std::unique_ptr<platform::VolumeMonitor> monitor_;  // last: stopped first
};

}  // namespace corvane
