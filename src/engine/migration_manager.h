// Migrates a list of items to an external disk as one batch, four items at most at a time:
// skips what is already there, refuses protected locations, runs each item through the staged
// transfer, records each success in the disk's record file and keeps the log the user sees.
// Published state changes on the thread that drains the MainQueue; observers are told there.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "catalogue/app_manager.h"
#include "engine/preflight/migration_preflight.h"
#include "engine/progress/migration_batch_progress.h"
#include "engine/progress/migration_progress_tracker.h"
#include "engine/transfer/migration_transfer.h"
#include "support/main_queue.h"
#include "support/observer_list.h"

namespace corvane {

class MigrationManager {
 public:
  // What one item came to.
  struct ItemOutcome {
    enum class Kind { succeeded, failed, skipped, deferred };
    std::string source;
    std::string name;
    std::string target;
    Kind kind = Kind::failed;
    std::string message;  // the localized reason of a failure, deferral or skip
    std::optional<std::string> retainedPath;
    std::optional<std::string> cleanupPath;
    // False when the item moved but its record could not be written: the user must hear it.
    bool recordSaved = true;
  };

  struct Hooks {
    MigrationPreflightPrompter* prompter = nullptr;
    MigrationPreflight::Services services = MigrationPreflight::defaultServices();
    const std::atomic<bool>* cancelled = nullptr;
    RetainOriginal retainOriginal = RetainOriginal::no;
    // Asked when programs inside an item are running; true when they were closed and the item
    // may go, false to skip the item. Items with nothing running are never asked about.
    std::function<bool(const std::string& path, const std::string& name, const std::vector<pid_t>& running)>
        closeRunningApp;
    // How open files are checked; the platform's lister when empty.
    std::function<void(const std::string& source, const MigrationManifest& manifest)> checkUsage;
    // The transfer's last hook before the exchange.
    std::function<void()> beforeCommit;
    // The transfer's hook after the exchange, before the replaced data is removed.
    std::function<void()> afterSwitch;
    std::size_t maximumInFlight = 4;
  };

  using Observer = std::function<void()>;
  using ProgressObserver = std::function<void(const std::vector<MigrationItemProgress>&)>;
  using LogObserver = std::function<void(const std::string&)>;

  MigrationManager(MainQueue& mainQueue, AppManager& appManager, Hooks hooks);
  ~MigrationManager();
  MigrationManager(const MigrationManager&) = delete;
  MigrationManager& operator=(const MigrationManager&) = delete;

  // Owner thread: starts the batch and returns; false when a batch or a move-back runs.
  bool migrateApps(const std::vector<std::string>& apps, const std::string& disk);

  // Published state (owner thread).
  bool isMigrating() const { return isMigrating_; }
  const std::string& logText() const { return logText_; }
  MigrationBatchProgress::Snapshot activeMigrationProgress() const { return snapshot_; }
  const std::vector<ItemOutcome>& outcomes() const { return outcomes_; }
  const std::string& progressRunID() const { return progressRunID_; }
  // Told after every change of the published state.
  [[nodiscard]] Subscription observe(Observer observer) { return observers_.add(std::move(observer)); }
  // Told every sample of the tracker's clock, on the owner thread like every other published
  // state. Without a progress observer no clock runs.
  [[nodiscard]] Subscription observeProgress(ProgressObserver observer) {
    return progressObservers_.add(std::move(observer));
  }
  // Told every log line as it is appended (owner thread).
  [[nodiscard]] Subscription observeLog(LogObserver observer) { return logObservers_.add(std::move(observer)); }

  // Where an item goes on `disk`: Applications/<name>.app or Directories/<absolute path>.
  static std::string destinationFor(const std::string& source, const std::string& disk);
  enum class LinkState { notALink, pointsAtTarget, pointsElsewhere };
  static LinkState linkState(const std::string& source, const std::string& expectedTarget);

  // Moving back, restoring a retained version and uninstalling an item that is already
  // migrated. Owner thread: each starts its work in the background and returns false when it
  // is refused at once (the log says why); `completion` runs on the owner thread at the end.
  // The record's target must lie on the disk given (`currentDisk`, `disk`, one of
  // `externalDisks`): without that, moving back and restoring fail before anything is touched
  // or any program is asked to quit, and uninstalling closes no program. A record whose paths
  // are relative or hold "." or "..", or whose target holds another record's target or a
  // transfer's staging folder, fails all three the same way.
  struct OperationResult {
    enum class Kind { succeeded, failed, deferred, cancelled, refused };
    Kind kind = Kind::failed;
    std::string message;  // the localized reason when it did not succeed
    // Where something the operation could not tidy up remains (the staging area, a copy).
    std::optional<std::string> cleanupPath = {};
    // False when the item's files changed but its record could not be changed with them.
    bool recordSaved = true;
  };
  using OperationCompletion = std::function<void(const OperationResult&)>;
  bool migrateBackToMainDisk(const MigratedApp& app, const std::optional<std::string>& currentDisk,
                             OperationCompletion completion = {});
  bool restoreFromBackup(const BackupRecord& backup, const MigratedApp& app, const std::optional<std::string>& disk,
                         OperationCompletion completion = {});
  // With `RetainedVersions::remove` the item's retained versions beside its copy go too.
  enum class RetainedVersions { keep, remove };
  bool uninstallApp(const MigratedApp& app, const std::vector<std::string>& externalDisks,
                    OperationCompletion completion = {}, RetainedVersions versions = RetainedVersions::keep);
  // The retained versions an uninstall with `RetainedVersions::remove` would delete: the
  // record's and those found beside its copy, each named as a version of that copy.
  static std::vector<std::string> retainedVersionsOf(const MigratedApp& app);
  const std::set<std::string>& migratingBackItems() const { return migratingBackItems_; }
  // "/", "Volumes" and the volume's name of a target under /Volumes; absent otherwise.
  static std::optional<std::string> diskRootFromTargetPath(const std::string& targetPath);

 private:
  // The record's item as every operation on it names it.
  struct ItemOperation {
    std::string original;  // where the link stands
    std::string target;    // the copy on the external disk
    std::string name;      // how the log names it
    // Set on the owner thread when a record change of the operation could not be written.
    std::shared_ptr<std::atomic<bool>> recordFailed = std::make_shared<std::atomic<bool>>(false);
  };
  // How an operation is refused or cancelled, and whether it needs its target on a disk.
  struct ItemOperationKeys {
    std::string duringBatch;
    std::string alreadyRunning;
    std::string cancelled;
    // Moving back and restoring work on the copy: one that does not lie on the disk fails them.
    // Uninstalling goes on (each of its removals checks for itself) without closing anything.
    bool needsTargetOnDisk = true;
  };
  // What every operation on a migrated item goes through: admission (refused during a batch,
  // during another operation on the item and while an update installs; otherwise the item
  // counts as moving until the work has finished), then in the background the checks on what
  // the record names (definite paths, the target on one of `disks` and holding no other item),
  // the question about programs running inside that verified target (never elsewhere), then
  // `perform`. `completion` runs on the owner thread.
  bool startItemOperation(const MigratedApp& app, const std::vector<std::string>& disks, const ItemOperationKeys& keys,
                          std::function<OperationResult(const ItemOperation&)> perform, OperationCompletion completion);
  OperationResult performMigrateBack(const MigratedApp& app, const ItemOperation& item,
                                     const std::optional<std::string>& currentDisk);
  OperationResult performRestoreFromBackup(const BackupRecord& backup, const MigratedApp& app,
                                           const ItemOperation& item, const std::optional<std::string>& disk);
  OperationResult performUninstall(const MigratedApp& app, const ItemOperation& item, RetainedVersions versions,
                                   const std::vector<std::string>& externalDisks);
  // Any thread: the catalogue loads `disk`'s records (when given), then `change` runs on the
  // owner thread, after that load, while the manager still exists, and before the operation's
  // completion.
  // `change` returns whether the record file was written; when it was not, the operation's
  // result says so.
  void changeRecords(const ItemOperation& item, const std::optional<std::string>& disk,
                     std::function<bool(MigrationManager&)> change);
  // The staged transfer as every operation runs it: the hooks' prompter and checks, open files
  // checked before the copy and again before the replaced data is removed, and the
  // administrator asked for only when the item's place needs it. `onRecheck` is told each time
  // the open-file check looks again.
  MigrationTransfer::Configuration transferConfiguration(std::function<void()> onRecheck) const;
  // Whether the item may go on after running programs inside it were dealt with.
  bool closeRunningProgramsOf(const std::string& path, const std::string& name);
  // Any thread: one localized line for an operation on an item, never dropped for a batch's run.
  void appendItemLog(const std::string& item, const std::string& key, const std::vector<std::string>& arguments);
  void runInBackground(std::function<OperationResult()> work, OperationCompletion completion);

  struct Batch;
  // Settles the interrupted transfers the disk's journal names; each outcome is logged through
  // `log` (key, arguments).
  static void recoverInterrupted(const std::string& disk,
                                 const std::function<void(const std::string&, const std::vector<std::string>&)>& log);
  void perform(std::shared_ptr<Batch> batch);
  void runItem(const std::shared_ptr<Batch>& batch, std::size_t index);
  ItemOutcome performSingleAppMigration(const std::shared_ptr<Batch>& batch, std::size_t index);
  void saveRecord(const std::shared_ptr<Batch>& batch, std::size_t index, const ItemOutcome& outcome);
  void finishBatch(const std::shared_ptr<Batch>& batch);
  static std::string logLine(const std::string& item, const std::string& key,
                             const std::vector<std::string>& arguments);
  // Owner thread.
  void appendLogNow(const std::string& line);
  // Any thread: appends one localized line (the item's name first, when given).
  void appendLog(const std::string& runID, const std::string& item, const std::string& key,
                 const std::vector<std::string>& arguments);
  void post(const std::string& runID, std::function<void()> work);
  // What a tracker's clock calls: hands each sample to the progress observer on the owner thread.
  MigrationProgressTracker::Sampled progressPublisher();
  void notify();

  MainQueue& mainQueue_;
  AppManager& appManager_;
  Hooks hooks_;
  bool isMigrating_ = false;
  std::string logText_;
  MigrationBatchProgress::Snapshot snapshot_;
  std::vector<ItemOutcome> outcomes_;
  std::string progressRunID_;
  ObserverList<> observers_;
  ObserverList<std::vector<MigrationItemProgress>> progressObservers_;
  ObserverList<std::string> logObservers_;
  std::shared_ptr<MigrationManager*> lifetime_ = std::make_shared<MigrationManager*>(this);
  std::shared_ptr<Batch> running_;
  std::set<std::string> migratingBackItems_;
  // Last member: joined before anything the work uses goes away.
  std::list<std::jthread> operations_;
};

}  // namespace corvane
