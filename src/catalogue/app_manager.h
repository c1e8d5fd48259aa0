// The catalogue of migrated items: owns the published list of the disk last loaded and is the
// only writer of each disk's record file. Reading falls back from the current file to the legacy
// one to a rebuild from the disk's folders; failures are logged, never raised, and the list keeps
// what it has. The list belongs to the thread that drains the MainQueue; observers are called
// there after every change.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "catalogue/migrated_app.h"
#include "support/main_queue.h"
#include "support/observer_list.h"

namespace corvane {

class AppManager {
 public:
  using Observer = std::function<void()>;

  struct ReconciledApps {
    std::vector<MigratedApp> apps;
    bool changed = false;  // some record's backup list was replaced
  };

  // `mainQueue` must outlive the manager.
  explicit AppManager(MainQueue& mainQueue);
  ~AppManager();
  AppManager(const AppManager&) = delete;
  AppManager& operator=(const AppManager&) = delete;

  // Owner thread.
  const std::vector<MigratedApp>& migratedApps() const { return migratedApps_; }
  // Told on the owner thread after every change of the published list.
  [[nodiscard]] Subscription observe(Observer observer) { return observers_.add(std::move(observer)); }

  // <disk>/.corvane/migrated_apps.json; creates and hides the directory on the way (failures
  // are logged and the path is returned anyway).
  static std::string getMigratedAppsFilePath(const std::string& disk);
  // Encodes and replaces the file atomically. Throws PosixError or MigratedAppsFormatError.
  static void writeMigratedApps(const std::vector<MigratedApp>& apps, const std::string& filePath);

  // Any thread: reads, filters and reconciles the disk's records here, then hands the list to
  // the owner thread. Without a disk the list becomes empty.
  void loadMigratedApps(const std::optional<std::string>& disk);
  // What loadMigratedApps publishes, computed on the calling thread (with the same repairs of
  // the file: reconciled backups written back, a legacy file moved).
  static std::vector<MigratedApp> loadRecords(const std::optional<std::string>& disk);
  // The same, saying whether the list was rebuilt from the disk's folders because no record
  // file could be read: such a list is a guess that front ends must present as one.
  struct LoadedRecords {
    std::vector<MigratedApp> apps;
    bool rebuiltByScan = false;
  };
  static LoadedRecords loadRecordsTellingSource(const std::optional<std::string>& disk);

  // Writes legacy records to the current location and removes the legacy file; on failure the
  // legacy file stays for the next attempt.
  static void migrateRecordsToNewLocation(const std::vector<MigratedApp>& apps, const std::string& disk);

  // Rebuilds the list from the disk's Applications and Directories folders and publishes it
  // (without writing the file).
  void scanTargetDiskForMigratedApps(const std::string& disk);
  static std::vector<MigratedApp> scannedRecords(const std::string& disk);

  static ReconciledApps reconcileBackupVersions(std::vector<MigratedApp> apps);

  // Each change of a disk's file happens under the disk's lock on the list the file holds at
  // that moment (the published list when the file is missing), so that commands running side by
  // side never lose each other's records; the list written is then published.
  // Owner thread. Inserts or updates (matched by originalPath) and writes the disk's file.
  // True only when the record reached a file: false when writing failed or no disk was given.
  bool saveMigratedApp(const MigratedApp& app, const std::optional<std::string>& disk,
                       const std::optional<std::string>& backupPath);
  // Owner thread. Removes by id, writes the file and reads it back. True when the file was
  // written and read back without the record (always false without a disk).
  bool removeMigratedApp(const MigratedApp& app, const std::optional<std::string>& disk);
  // Owner thread. Removes by id from every disk's file. True when every disk's file was
  // written.
  bool removeMigratedAppAndSaveToAllDisks(const MigratedApp& app, const std::vector<std::string>& externalDisks);

  // Any thread, under the disk's lock: re-reads the disk's file (one that cannot be read is kept
  // under a dated name; `whenMissing` stands in for a missing one), applies `change` and writes
  // it. Returns the list written; throws when it could not be written. Publishes nothing.
  static std::vector<MigratedApp> rewriteRecordFile(const std::string& disk, std::vector<MigratedApp> whenMissing,
                                                    const std::function<void(std::vector<MigratedApp>&)>& change);

  // Whether the record's original path is a symbolic link that leads to its target.
  static bool isAppSymlink(const MigratedApp& app);

 private:
  // `guessed`: the list was rebuilt from the disk's folders, not read from a record file.
  void publish(std::vector<MigratedApp> apps, bool guessed);
  // Under the disk's lock: re-reads the file, applies `change`, writes the file and publishes
  // the list. Throws when the file cannot be written; the published list is then unchanged.
  void changeRecordFile(const std::string& disk, const std::function<void(std::vector<MigratedApp>&)>& change);
  void notify();

  MainQueue& mainQueue_;
  std::vector<MigratedApp> migratedApps_;
  // A guessed list is shown but never written as records: a folder another command is moving
  // right now would otherwise become a record of its own.
  bool publishedListGuessed_ = false;
  ObserverList<> observers_;
  // Work posted to the main queue checks this so that it never reaches a destroyed manager.
  std::shared_ptr<AppManager*> lifetime_ = std::make_shared<AppManager*>(this);
};

}  // namespace corvane
