// Transfers and the manager's operations on two real ext4 volumes (changing sources, filling or unfit
// destinations, batches, moving back, admission), and restoring versions and uninstalling on real folders.
#include "engine/migration_manager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "catalogue/app_bundle_metadata.h"
#include "catalogue/app_manager.h"
#include "catalogue/migrated_apps_file.h"
#include "engine/manifest/migration_copy_workload.h"
#include "engine/migration_issue.h"
#include "engine/migration_test_support.h"
#include "engine/preflight/migration_socket_probe.h"
#include "engine/transfer/migration_transfer.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"
#include "platform/volume.h"
#include "settings/localization.h"
#include "support/paths.h"
#include "support/update_activity.h"
#include "support/uuid.h"

namespace corvane {
namespace {

class MigrateBackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CORVANE_TEST_VOLUME(internal, VolumeKind::ext4);
    CORVANE_TEST_VOLUME(external, VolumeKind::ext4);
    internal_ = std::move(internal);
    external_ = std::move(external);
    item_ = internal_->child("home/me/Project");
    buildSampleTree(
        item_,
        {.fifo = true, .staleSocket = true, .sparseFile = true, .extendedAttributes = true, .accessControlList = true});
    writeFile(internal_->child("home/me/outside.txt"), "outside");
    chown((item_ + "/Contents/Info.plist").c_str(), 1234, 5678);
    disk_ = external_->mountPoint();
    destination_ = disk_ + "/Directories" + item_;
    before_ = fullManifest(item_);
  }

  MigrationManager::Hooks hooks() {
    MigrationManager::Hooks result;
    result.prompter = &prompter_;
    result.services.probe = MigrationSocketProbe::probeWith(std::string(corvaneBinaryPath()));
    result.checkUsage = [this](const auto& item, const auto& manifest) {
      if (duringCheck_) duringCheck_(item, manifest);
    };
    result.afterSwitch = afterSwitch_;
    result.beforeCommit = beforeCommit_;
    return result;
  }

  void runBatch(MigrationManager& manager, const std::vector<std::string>& items) {
    ASSERT_TRUE(manager.migrateApps(items, disk_));
    ASSERT_TRUE(queue_.runUntil([&] { return !manager.isMigrating(); }, std::chrono::minutes(2)));
  }
  // Migrates the item and returns its record.
  MigratedApp migrate() {
    MigrationManager manager(queue_, apps_, hooks());
    runBatch(manager, {item_});
    const auto records = AppManager::loadRecords(disk_);
    if (records.size() != 1) throw std::runtime_error("the migration left no record");
    return records.front();
  }
  // Transfers the item straight to `destination_`, outside the manager.
  MigrationTransfer::Result transfer(RetainOriginal retain = RetainOriginal::no) {
    MigrationTransfer::Configuration configuration;
    configuration.prompter = &prompter_;
    configuration.services = hooks().services;
    configuration.checkUsage = hooks().checkUsage;
    configuration.afterCopy = afterCopy_;
    configuration.makeAccess = [](const std::string& path) { return std::make_unique<MigrationAccess>(path); };
    MigrationItemProgress item;
    item.name = "item";
    MigrationProgressTracker tracker({item});
    makeDirectories(parentPath(destination_));
    auto result =
        MigrationTransfer(configuration)
            .transfer({.source = item_,
                       .destination = destination_,
                       .tracker = tracker,
                       .name = "item",
                       .retainOriginal = retain,
                       .log = [&](const std::string& key, const std::vector<std::string>&) { log_ += key + "\n"; }});
    lastProgress_ = tracker.current().front();
    return result;
  }
  // The key (or errno) of the cause of a transfer's failure; empty when it succeeded.
  std::string transferFailure() {
    try {
      transfer();
    } catch (const MigrationTransfer::Failure& failure) {
      try {
        failure.rethrowCause();
      } catch (const MigrationIssue& issue) {
        return issue.key();
      } catch (const platform::PosixError& error) {
        return "errno " + std::to_string(error.errnoValue());
      }
    }
    return "";
  }

  void expectSourceUntouched() {
    EXPECT_EQ(fullManifest(item_), before_) << "the source changed";
    EXPECT_FALSE(hasStagingLeft(parentPath(destination_)));
    EXPECT_FALSE(MigrationEntry::read(destination_, AT_FDCWD));
  }

  MigrationManager::OperationResult moveBack(const MigratedApp& app) {
    MigrationManager manager(queue_, apps_, hooks());
    std::optional<MigrationManager::OperationResult> result;
    manager.migrateBackToMainDisk(app, disk_,
                                  [&](const MigrationManager::OperationResult& outcome) { result = outcome; });
    EXPECT_TRUE(queue_.runUntil([&] { return result.has_value(); }, std::chrono::minutes(2)));
    log_ = manager.logText();
    return result.value_or(MigrationManager::OperationResult{});
  }

  std::unique_ptr<TestVolume> internal_, external_;
  std::string item_, disk_, destination_, log_;
  std::map<std::string, std::string> before_;
  MigrationItemProgress lastProgress_;
  MainQueue queue_;
  AppManager apps_{queue_};
  DeferringPrompter prompter_;
  std::function<void(const std::string&, const MigrationManifest&)> duringCheck_;
  std::function<void(const std::string&)> afterCopy_;
  std::function<void()> afterSwitch_;
  std::function<void()> beforeCommit_;
};

TEST_F(MigrateBackTest, RoundTripRestoresEverythingButInodesAndChangeTimes) {
  auto before = fullManifest(item_);
  const auto app = migrate();
  EXPECT_EQ(app.targetPath, disk_ + "/Directories" + item_);
  const auto result = moveBack(app);
  ASSERT_EQ(result.kind, MigrationManager::OperationResult::Kind::succeeded) << result.message << "\n" << log_;
  auto after = fullManifest(item_);
  // A link that climbed out of the item got an absolute target on the way out and keeps it: same file.
  const std::string climbing = "Contents/Resources/deep/climbs-out";
  ASSERT_TRUE(before.count(climbing));
  EXPECT_EQ(resolvingSymlinksInPath(item_ + "/" + climbing),
            resolvingSymlinksInPath(internal_->child("home/me/outside.txt")));
  before.erase(climbing);
  after.erase(climbing);
  before.erase("Contents/stale.sock");  // left out on the way there
  EXPECT_EQ(after, before);
  EXPECT_FALSE(MigrationEntry::read(app.targetPath, AT_FDCWD)) << "the external copy is removed";
  EXPECT_TRUE(AppManager::loadRecords(disk_).empty());
  EXPECT_FALSE(hasStagingLeft(parentPath(item_)));
  EXPECT_NE(log_.find(localized("log.migration_record_cleaned")), std::string::npos) << log_;
  EXPECT_NE(log_.find(localized("log.migrate_back_complete")), std::string::npos) << log_;
  EXPECT_NE(log_.find(formatLocalizedText(localized("log.target_disk_path"), {disk_})), std::string::npos) << log_;
}

TEST_F(MigrateBackTest, RealFolderAtTheOriginalPathIsNeverReplaced) {
  const auto app = migrate();
  const auto external = fullManifest(app.targetPath);
  // First a link to the same folder name on a third disk: it no longer leads to the recorded copy.
  CORVANE_TEST_VOLUME(other, VolumeKind::tmpfs);
  const std::string elsewhere = other->child("Directories" + item_);
  buildSampleTree(elsewhere);
  ASSERT_EQ(unlink(item_.c_str()), 0);
  ASSERT_EQ(symlink(elsewhere.c_str(), item_.c_str()), 0);
  auto result = moveBack(app);
  EXPECT_EQ(result.kind, MigrationManager::OperationResult::Kind::failed);
  EXPECT_NE(result.message.find(localized("migration.preflight.restore_wrong_target")), std::string::npos)
      << result.message;
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD).value().link, elsewhere);
  EXPECT_EQ(fullManifest(app.targetPath), external);
  // Then the user's own folder.
  ASSERT_EQ(unlink(item_.c_str()), 0);
  writeFile(item_ + "/mine.txt", "the user's own");
  result = moveBack(app);
  EXPECT_EQ(result.kind, MigrationManager::OperationResult::Kind::failed);
  EXPECT_NE(result.message.find(localized("error.migration_restore_conflict")), std::string::npos) << result.message;
  EXPECT_EQ(readFile(item_ + "/mine.txt"), "the user's own");
  EXPECT_EQ(fullManifest(app.targetPath), external);
  // The catalogue hides such a record, but the file must keep it for when the user sorts the conflict out.
  const auto stored = MigratedAppsFile::read(AppManager::getMigratedAppsFilePath(disk_));
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_EQ(stored.front().id, app.id);
  EXPECT_EQ(log_.find(localized("log.migration_record_cleaned")), std::string::npos);
}

TEST_F(MigrateBackTest, ACopyReplacedAfterTheSwitchKeepsTheDiskCopy) {
  const auto app = migrate();
  const auto external = fullManifest(app.targetPath);
  // Another folder takes the restored copy's place before the disk's copy would be removed.
  afterSwitch_ = [&] {
    ASSERT_EQ(rename(item_.c_str(), (item_ + "-aside").c_str()), 0);
    makeDirectories(item_);
  };
  moveBack(app);
  EXPECT_EQ(fullManifest(app.targetPath), external);
}

TEST_F(MigrateBackTest, AFailureAfterTheExchangeUndoesNothingAndTheOutcomeSaysWhereEverythingIs) {
  // On the way out: the copy vanishes as the link takes the item's place. Undoing the promotion
  // would leave the link dangling and the original under a name nobody was told.
  beforeCommit_ = [&] { ASSERT_EQ(rename(destination_.c_str(), (destination_ + "-aside").c_str()), 0); };
  {
    MigrationManager manager(queue_, apps_, hooks());
    runBatch(manager, {item_});
    ASSERT_EQ(manager.outcomes().size(), 1u);
    const auto& outcome = manager.outcomes().front();
    EXPECT_EQ(outcome.kind, MigrationManager::ItemOutcome::Kind::failed) << manager.logText();
    ASSERT_TRUE(outcome.cleanupPath);
    EXPECT_EQ(parentPath(*outcome.cleanupPath), parentPath(item_));
    EXPECT_EQ(fullManifest(*outcome.cleanupPath), before_) << "the original lies where the outcome says";
    for (const auto& path : {item_, destination_, *outcome.cleanupPath})
      EXPECT_NE(outcome.message.find(path), std::string::npos) << outcome.message;
    EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD).value().link, destination_);
    EXPECT_EQ(manager.logText().find(localized("migration.safety.rolled_back")), std::string::npos);
    EXPECT_FALSE(MigrationEntry::read(AppManager::getMigratedAppsFilePath(disk_), AT_FDCWD)) << "no record";
  }
  // Put things right by hand, migrate properly, then fail the way back after its exchange: the
  // link that is swapped out is not the one that was checked.
  ASSERT_EQ(unlink(item_.c_str()), 0);
  for (const auto& entry : std::filesystem::directory_iterator(parentPath(item_))) {
    if (entry.path().filename().string().find(".corvane_backup_") != std::string::npos) {
      ASSERT_EQ(rename(entry.path().c_str(), item_.c_str()), 0);
    }
  }
  std::filesystem::remove_all(destination_ + "-aside");
  beforeCommit_ = {};
  const auto app = migrate();
  const auto external = fullManifest(app.targetPath);
  beforeCommit_ = [&] {
    ASSERT_EQ(symlink(app.targetPath.c_str(), (item_ + "-new").c_str()), 0);
    ASSERT_EQ(rename((item_ + "-new").c_str(), item_.c_str()), 0);
  };
  const auto result = moveBack(app);
  EXPECT_EQ(result.kind, MigrationManager::OperationResult::Kind::failed) << log_;
  for (const auto& path : {item_, app.targetPath})
    EXPECT_NE(result.message.find(path), std::string::npos) << result.message;
  EXPECT_EQ(log_.find(localized("migration.safety.rolled_back")), std::string::npos) << log_;
  // The item is back, the copy and its record are still on the disk, as the outcome says.
  EXPECT_EQ(fullManifest(item_), external);
  EXPECT_EQ(fullManifest(app.targetPath), external);
  EXPECT_EQ(MigratedAppsFile::read(AppManager::getMigratedAppsFilePath(disk_)).size(), 1u);
}

TEST_F(MigrateBackTest, InternalDiskFillingUpDuringTheCopyLeavesTheItemMigrated) {
  writeFile(item_ + "/big.bin", std::string(24 << 20, 'x'));
  const auto app = migrate();
  const auto external = fullManifest(app.targetPath);
  // Room when the space is checked, none by the time the staged copy is written.
  duringCheck_ = [&](const std::string&, const MigrationManifest&) {
    const std::int64_t free = platform::availableCapacity(internal_->mountPoint());
    const int fd = open(internal_->child("filler").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(posix_fallocate(fd, 0, free - (1 << 20)), 0);
    close(fd);
  };
  const auto result = moveBack(app);
  EXPECT_EQ(result.kind, MigrationManager::OperationResult::Kind::failed) << log_;
  EXPECT_NE(log_.find(formatLocalizedText(localized("log.migrate_back_failed_detailed"), {result.message})),
            std::string::npos);
  // Still migrated: the link, the copy and the record as they were, nothing staged.
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD).value().link, app.targetPath);
  EXPECT_EQ(fullManifest(app.targetPath), external);
  ASSERT_EQ(AppManager::loadRecords(disk_).size(), 1u);
  EXPECT_EQ(AppManager::loadRecords(disk_).front().id, app.id);
  EXPECT_FALSE(hasStagingLeft(parentPath(item_)));
}

TEST_F(MigrateBackTest, AdmissionOfMoveBackAndUninstallRefusesDuringABatchTwiceForOneItemAndDuringAnUpdate) {
  const auto app = migrate();
  // While an update installs.
  UpdateActivity::shared().setInstalling(true);
  {
    MigrationManager manager(queue_, apps_, hooks());
    EXPECT_FALSE(manager.migrateBackToMainDisk(app, disk_));
    UpdateActivity::shared().setInstalling(false);
    queue_.runUntil([] { return false; }, std::chrono::milliseconds(50));
    EXPECT_NE(manager.logText().find(localized("log.migrate_back_blocked_by_update")), std::string::npos);
  }
  // The same item twice: the first move-back waits inside its open-file check.
  std::atomic<bool> inside{false}, released{false};
  duringCheck_ = [&](const std::string&, const MigrationManifest&) {
    inside = true;
    inside.notify_all();
    released.wait(false);
  };
  MigrationManager manager(queue_, apps_, hooks());
  std::optional<MigrationManager::OperationResult> first;
  ASSERT_TRUE(manager.migrateBackToMainDisk(app, disk_, [&](const auto& outcome) { first = outcome; }));
  inside.wait(false);
  EXPECT_EQ(manager.migratingBackItems().count(item_), 1u);
  EXPECT_FALSE(manager.migrateBackToMainDisk(app, disk_));
  // Nor may an uninstall delete the copy the move-back is reading.
  EXPECT_FALSE(manager.uninstallApp(app, {disk_}));
  EXPECT_TRUE(MigrationEntry::read(app.targetPath, AT_FDCWD));
  // Nor may a forward batch take the item that is on its way back.
  EXPECT_FALSE(manager.migrateApps({item_}, disk_));
  EXPECT_FALSE(manager.isMigrating());
  // A forward batch of another item may run meanwhile, but no move-back may start during it.
  const std::string other = internal_->child("home/me/Other");
  buildSampleTree(other);
  ASSERT_TRUE(manager.migrateApps({other}, disk_));
  released = true;
  released.notify_all();
  EXPECT_FALSE(manager.migrateBackToMainDisk(app, disk_));
  EXPECT_FALSE(manager.uninstallApp(app, {disk_}));
  ASSERT_TRUE(queue_.runUntil([&] { return first.has_value() && !manager.isMigrating(); }, std::chrono::minutes(2)));
  EXPECT_EQ(first->kind, MigrationManager::OperationResult::Kind::succeeded) << manager.logText();
  EXPECT_TRUE(manager.migratingBackItems().empty());
  EXPECT_NE(manager.logText().find(localized("log.migrate_back_in_progress")), std::string::npos);
  EXPECT_NE(manager.logText().find(localized("log.migrate_back_blocked_by_migration")), std::string::npos);
  EXPECT_NE(manager.logText().find(localized("log.uninstall_in_progress")), std::string::npos);
  EXPECT_NE(manager.logText().find(localized("log.uninstall_blocked_by_migration")), std::string::npos);
  EXPECT_EQ(UpdateActivity::shared().pending(), 0);
}

using MigrationManagerTest = MigrateBackTest;
using TransferTest = MigrateBackTest;

TEST_F(TransferTest, KeepingTheOriginalLeavesItBesideTheLinkAndStaleSocketsOutOfTheCopy) {
  const auto result = transfer(RetainOriginal::yes);
  ASSERT_TRUE(result.retainedSource && result.retainedPath);
  EXPECT_EQ(result.retentionReason, "migration.transfer.source_retained");
  EXPECT_EQ(fullManifest(*result.retainedPath), before_);
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD).value().link, destination_);
  EXPECT_FALSE(hasStagingLeft(parentPath(destination_)));
  EXPECT_FALSE(MigrationEntry::read(destination_ + "/Contents/stale.sock", AT_FDCWD));
  EXPECT_NE(log_.find("migration.preflight.omitted"), std::string::npos) << log_;
  EXPECT_NE(log_.find("log.symlink_success"), std::string::npos) << log_;
  EXPECT_EQ(lastProgress_.phase, MigrationItemProgress::Phase::done);
  EXPECT_EQ(lastProgress_.copiedBytes, lastProgress_.totalBytes);
  EXPECT_GT(lastProgress_.totalBytes, 0);
}

TEST_F(TransferTest, AStagedFileDamagedAfterTheCopyIsRepairedOnceAndTheMigrationCompletes) {
  // Held open so the rebuilt file cannot take the freed inode number back, as on a busy volume.
  platform::UniqueFd damaged;
  afterCopy_ = [&](const std::string& staged) {
    // Same size and times, other bytes: only the content comparison can see it.
    const std::string file = staged + "/Contents/Resources/deep/file4.txt";
    const auto times = platform::statNoFollow(AT_FDCWD, file).value();
    damaged = platform::UniqueFd(open(file.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(pwrite(damaged.get(), "XY", 2, 0), 2);
    platform::setTimesNoFollow(file, times.accessed, times.modified);
  };
  const auto result = transfer();
  EXPECT_FALSE(result.retainedSource);
  EXPECT_NE(log_.find("migration.transfer.repaired"), std::string::npos) << log_;
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD).value().link, destination_);
  EXPECT_FALSE(hasStagingLeft(parentPath(destination_)));
  // The rebuilt file's folder carries the original folder's times again.
  const auto copied = fullManifest(destination_);
  for (const char* relative : {"Contents/Resources/deep", "Contents/Resources/deep/file4.txt"}) {
    EXPECT_EQ(copied.at(relative), before_.at(relative)) << relative;
  }
}

TEST_F(TransferTest, SourceChangedOrGrowingAfterTheScanRollsBackWithTheSourceIntact) {
  // Each change happens after the scan; the state right after it is what must survive.
  duringCheck_ = [&](const std::string&, const MigrationManifest&) {
    unlink((item_ + "/Contents/Info.plist").c_str());
    before_ = fullManifest(item_);
  };
  EXPECT_EQ(transferFailure(), "error.migration_source_changed");
  expectSourceUntouched();
  EXPECT_NE(log_.find("migration.safety.rolled_back"), std::string::npos) << log_;
  const std::string file = item_ + "/Contents/Resources/deep/file4.txt";
  duringCheck_ = [&](const std::string&, const MigrationManifest&) {
    writeFile(file, readFile(file) + "appended");
    before_ = fullManifest(item_);
  };
  EXPECT_EQ(transferFailure(), "error.migration_source_changed");
  expectSourceUntouched();
}

TEST_F(TransferTest, DestinationFillingUpDuringTheCopyRollsBack) {
  // tmpfs keeps no blocks in reserve, so what the space check sees is all there is.
  auto small = TestVolume::create(VolumeKind::tmpfs, 64 << 20);
  writeFile(item_ + "/big.bin", std::string(24 << 20, 'x'));
  // A hole counts in the space check but takes nothing on the medium: it would leave room.
  unlink((item_ + "/Contents/sparse.bin").c_str());
  before_ = fullManifest(item_);
  destination_ = small->child("Project");
  // The data's size stays free, so the space check passes, but small files take whole pages and the copy runs out.
  duringCheck_ = [&](const std::string&, const MigrationManifest& manifest) {
    const std::int64_t page = sysconf(_SC_PAGESIZE);
    const std::int64_t room = (MigrationCopyWorkload(manifest, {}).bytes + page - 1) / page * page;
    const std::int64_t free = platform::availableCapacity(small->mountPoint());
    ASSERT_GT(free, room);
    const int fd = open(small->child("filler").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(posix_fallocate(fd, 0, free - room), 0);
    close(fd);
    ASSERT_GE(platform::availableCapacity(small->mountPoint()), MigrationCopyWorkload(manifest, {}).bytes);
  };
  EXPECT_EQ(transferFailure(), "errno " + std::to_string(ENOSPC));
  expectSourceUntouched();
  EXPECT_FALSE(hasStagingLeft(small->mountPoint()));
  EXPECT_NE(log_.find("migration.safety.rolled_back"), std::string::npos) << log_;
}

TEST_F(TransferTest, RefusalsBeforeCopyingLeaveEverythingAsItWas) {
  duringCheck_ = [](const std::string& source, const MigrationManifest&) {
    throw MigrationIssue("migration.preflight.deferred", source);
  };
  EXPECT_EQ(transferFailure(), "migration.preflight.deferred") << "a live blocker defers";
  expectSourceUntouched();
  duringCheck_ = nullptr;
  makeDirectories(destination_);
  EXPECT_EQ(transferFailure(), "migration.preflight.target_exists");
  rmdir(destination_.c_str());
  destination_ = item_ + "/inside";
  EXPECT_EQ(transferFailure(), "error.migration_overlapping_paths");
  EXPECT_EQ(fullManifest(item_), before_) << "the source changed";
  auto fat = TestVolume::create(VolumeKind::fat);
  destination_ = fat->child("Project");
  EXPECT_EQ(transferFailure(), "migration.preflight.filesystem");
  expectSourceUntouched();
  auto small = TestVolume::create(VolumeKind::ext4, 8 << 20);
  writeFile(item_ + "/big.bin", std::string(16 << 20, 'x'));
  before_ = fullManifest(item_);
  destination_ = small->child("Project");
  EXPECT_EQ(transferFailure(), "migration.preflight.space");
  expectSourceUntouched();
}

TEST_F(MigrationManagerTest, SixItemsNeverRunMoreThanFourTransfersAtOnceAndReportProgressOnTheOwnerThread) {
  std::vector<std::string> items;
  for (int i = 0; i < 6; ++i) {
    items.push_back(internal_->child("home/item" + std::to_string(i)));
    buildSampleTree(items.back());
  }
  std::atomic<int> active{0};
  std::atomic<int> peak{0};
  // The open-file check runs inside each transfer: holding it a moment makes overlap visible.
  duringCheck_ = [&](const std::string&, const MigrationManifest&) {
    const int now = ++active;
    for (int seen = peak.load(); now > seen && !peak.compare_exchange_weak(seen, now);) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    --active;
  };
  MigrationManager manager(queue_, apps_, hooks());
  std::vector<std::thread::id> sampledOn;
  const Subscription sampling = manager.observeProgress(
      [&](const std::vector<MigrationItemProgress>&) { sampledOn.push_back(std::this_thread::get_id()); });
  runBatch(manager, items);
  ASSERT_FALSE(sampledOn.empty()) << "the clock's samples reach the observer";
  EXPECT_EQ(std::count(sampledOn.begin(), sampledOn.end(), std::this_thread::get_id()),
            static_cast<std::ptrdiff_t>(sampledOn.size()))
      << "samples arrive on the thread that drains the main queue";
  EXPECT_LE(peak.load(), 4);
  EXPECT_GE(peak.load(), 2) << "items did not run side by side at all";
  EXPECT_EQ(manager.activeMigrationProgress().succeeded, 6);
  for (const auto& item : items) {
    EXPECT_EQ(MigrationEntry::read(item, AT_FDCWD).value().kind, MigrationEntry::Kind::symbolicLink);
  }
  EXPECT_EQ(AppManager::loadRecords(disk_).size(), 6u) << "every success is recorded on the disk";
}

TEST_F(MigrationManagerTest, ProtectedItemsAreRefusedAloneAndLinkedOnesAreSkipped) {
  const std::string application = internal_->child("Applications/Tool.app");
  buildSampleTree(application);
  // A link someone else made: not ours to move, and no failure of the batch.
  const std::string foreignLink = internal_->child("home/me/Foreign");
  ASSERT_EQ(symlink(internal_->child("home/me/outside.txt").c_str(), foreignLink.c_str()), 0);
  MigrationManager manager(queue_, apps_, hooks());
  runBatch(manager, {"/usr", item_, foreignLink, application});
  EXPECT_EQ(manager.activeMigrationProgress().succeeded, 2) << "the protected item did not stop the others";
  EXPECT_EQ(manager.activeMigrationProgress().failed, 1);
  EXPECT_EQ(manager.activeMigrationProgress().skipped, 1);
  ASSERT_EQ(manager.outcomes().size(), 4u);
  EXPECT_EQ(manager.outcomes()[0].kind, MigrationManager::ItemOutcome::Kind::failed);
  EXPECT_EQ(manager.outcomes()[0].message, localizedFormat("migration.preflight.selection_protected", "/usr"));
  EXPECT_EQ(manager.outcomes()[2].kind, MigrationManager::ItemOutcome::Kind::skipped);
  EXPECT_EQ(manager.outcomes()[2].message, localized("log.symlink_invalid"));
  EXPECT_EQ(MigrationEntry::read(foreignLink, AT_FDCWD).value().kind, MigrationEntry::Kind::symbolicLink);
  EXPECT_TRUE(MigrationEntry::read(disk_ + "/Applications/Tool.app/Contents/Info.plist", AT_FDCWD));
  EXPECT_TRUE(MigrationEntry::read(disk_ + "/Directories" + item_ + "/Contents/Info.plist", AT_FDCWD));
  MigrationManager again(queue_, apps_, hooks());
  runBatch(again, {item_});
  EXPECT_EQ(again.activeMigrationProgress().skipped, 1);
  EXPECT_EQ(again.activeMigrationProgress().failed, 0);
  EXPECT_NE(again.logText().find(localized("log.migrate_already_done")), std::string::npos);
}

TEST(MigrationDiskRootTest, TargetsUnderVolumesNameTheirVolume) {
  EXPECT_EQ(MigrationManager::destinationFor("/home/me/./data/", "/media/me/disk"),
            "/media/me/disk/Directories/home/me/data");
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/Volumes/X/Applications/Foo.app"), "/Volumes/X");
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/Volumes/My Disk/Directories/Users/a/b"), "/Volumes/My Disk");
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/media/x/Applications/Foo.app"), std::nullopt);
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/Volumes"), std::nullopt);
}

void makeBundle(const std::string& path, const std::string& version) {
  writeFile(path + "/Contents/MacOS/Tool", "#!/bin/sh\necho " + version + "\n", 0755);
  writeFile(path + "/Contents/Info.plist",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
            "<key>CFBundleShortVersionString</key><string>" +
                version + "</string></dict></plist>\n");
}

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// Runs the rest of a scope in another working directory, where a relative path would lead.
class CurrentDirectory {
 public:
  explicit CurrentDirectory(const std::string& path) : saved_(std::filesystem::current_path()) {
    std::filesystem::current_path(path);
  }
  ~CurrentDirectory() { std::filesystem::current_path(saved_); }
  CurrentDirectory(const CurrentDirectory&) = delete;
  CurrentDirectory& operator=(const CurrentDirectory&) = delete;

 private:
  std::filesystem::path saved_;
};

class ItemOperationsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Support files are deleted only inside the home folder.
    if (const char* home = std::getenv("HOME")) savedHome_ = home;
    ::setenv("HOME", root_.child("home").c_str(), 1);
    disk_ = root_.child("disk");
    target_ = disk_ + "/Applications/Tool.app";
    version_ = disk_ + "/Applications/Tool_backup_20240101_120000.app";
    original_ = root_.child("Applications/Tool.app");
    makeBundle(target_, "2.0");
    makeBundle(version_, "1.0");
    makeDirectories(root_.child("Applications"));
    ASSERT_EQ(symlink(target_.c_str(), original_.c_str()), 0);
    MigratedApp app;
    app.id = makeUuidString();
    app.appName = "Tool.app";
    app.originalPath = original_;
    app.targetPath = target_;
    app.itemType = MigratedItemType::application;
    app.migratedDate = ReferenceDate::now();
    AppManager::writeMigratedApps({app}, AppManager::getMigratedAppsFilePath(disk_));
    app_ = AppManager::loadRecords(disk_).at(0);
    ASSERT_EQ(app_.backupVersions.size(), 1u);
  }

  enum class Operation { back, restore, uninstall };
  // Runs a move-back, a restore of the kept version or an uninstall and returns its outcome.
  MigrationManager::OperationResult operate(Operation operation, const std::function<void()>& beforeCommit = {},
                                            decltype(MigrationManager::Hooks::closeRunningApp) closeRunningApp = {}) {
    MigrationManager::Hooks hooks;
    hooks.beforeCommit = beforeCommit;
    hooks.closeRunningApp = std::move(closeRunningApp);
    MigrationManager manager(queue_, apps_, hooks);
    std::optional<MigrationManager::OperationResult> result;
    auto done = [&](const auto& outcome) { result = outcome; };
    if (operation == Operation::back) {
      manager.migrateBackToMainDisk(app_, disk_, done);
    } else if (operation == Operation::restore) {
      manager.restoreFromBackup(app_.backupVersions.at(0), app_, disk_, done);
    } else {
      manager.uninstallApp(app_, {disk_}, done);
    }
    EXPECT_TRUE(queue_.runUntil([&] { return result.has_value(); }, std::chrono::seconds(30)));
    log_ = manager.logText();
    return result.value_or(MigrationManager::OperationResult{});
  }

  void TearDown() override { ::setenv("HOME", savedHome_.c_str(), 1); }

  TemporaryDirectory root_;
  std::string savedHome_ = "/root";
  std::string disk_, target_, version_, original_, log_;
  MigratedApp app_;
  MainQueue queue_;
  AppManager apps_{queue_};
};

TEST_F(ItemOperationsTest, RestoringPutsTheVersionInPlaceAndKeepsTheCurrentOne) {
  {
    // A program holding a file of the current copy open defers the restore; nothing moves.
    auto holder = OccupantProcess::holdingFile(target_ + "/Contents/Info.plist", O_RDONLY);
    EXPECT_EQ(operate(Operation::restore).kind, MigrationManager::OperationResult::Kind::deferred) << log_;
    EXPECT_EQ(AppBundleMetadata::version(target_), "2.0");
    EXPECT_EQ(namesIn(disk_ + "/Applications"),
              (std::vector<std::string>{"Tool.app", "Tool_backup_20240101_120000.app"}));
  }
  ASSERT_EQ(operate(Operation::restore).kind, MigrationManager::OperationResult::Kind::succeeded) << log_;
  EXPECT_EQ(AppBundleMetadata::version(target_), "1.0");
  EXPECT_FALSE(MigrationEntry::read(version_, AT_FDCWD));
  const auto names = namesIn(disk_ + "/Applications");  // "Tool.app" sorts first
  ASSERT_EQ(names.size(), 2u);
  EXPECT_EQ(names[1].rfind("Tool_backup_", 0), 0u);
  const std::string kept = disk_ + "/Applications/" + names[1];
  EXPECT_EQ(AppBundleMetadata::version(kept), "2.0");
  EXPECT_NE(log_.find(formatLocalizedText(localized("log.restore_complete_versions"), {"2.0", "1.0"})),
            std::string::npos)
      << log_;
  const auto backups = AppManager::loadRecords(disk_).at(0).backupVersions;
  EXPECT_TRUE(std::any_of(backups.begin(), backups.end(), [&](const auto& b) {
    return b.backupPath == kept && b.exists;
  })) << "the record lists the kept version, which exists";
  EXPECT_EQ(MigrationEntry::read(original_, AT_FDCWD).value().kind, MigrationEntry::Kind::symbolicLink);
}

TEST_F(ItemOperationsTest, VersionWithoutExecutablesChangesNothingAndAFailedRestorePutsTheCurrentOneBack) {
  removeTreeForcefully(version_ + "/Contents/MacOS");
  const auto before = namesIn(disk_ + "/Applications");
  EXPECT_EQ(operate(Operation::restore).kind, MigrationManager::OperationResult::Kind::failed);
  EXPECT_NE(log_.find(localized("log.restore_incomplete")), std::string::npos) << log_;
  EXPECT_EQ(namesIn(disk_ + "/Applications"), before);
  EXPECT_EQ(AppBundleMetadata::version(target_), "2.0");
  EXPECT_EQ(AppManager::loadRecords(disk_).at(0), app_);
  // The chosen version vanishes at the last moment: the failed restore puts the current one back.
  makeBundle(version_, "1.0");
  const auto result =
      operate(Operation::restore, [&] { platform::renameExclusive(version_, root_.child("moved-away.app")); });
  EXPECT_EQ(result.kind, MigrationManager::OperationResult::Kind::failed);
  EXPECT_NE(log_.find(localized("log.restore_rollback_success")), std::string::npos) << log_;
  EXPECT_EQ(AppBundleMetadata::version(target_), "2.0");
  EXPECT_EQ(namesIn(disk_ + "/Applications"), std::vector<std::string>{"Tool.app"}) << "no kept copy stays behind";
}

TEST_F(ItemOperationsTest, UninstallLeavesARealBundleAndRemovesCopySupportFilesAndRecord) {
  // The user reinstalled the application at its original location.
  ASSERT_EQ(unlink(original_.c_str()), 0);
  makeBundle(original_, "3.0");
  const std::string support = root_.child("home/Library/Application Support/Tool");
  writeFile(support + "/settings.json", "{}");
  app_.supportFiles = {support};
  EXPECT_EQ(operate(Operation::uninstall).kind, MigrationManager::OperationResult::Kind::succeeded) << log_;
  EXPECT_EQ(AppBundleMetadata::version(original_), "3.0");
  EXPECT_NE(log_.find(formatLocalizedText(localized("log.uninstall_real_file_skip"), {original_})), std::string::npos);
  EXPECT_FALSE(MigrationEntry::read(target_, AT_FDCWD));
  EXPECT_FALSE(MigrationEntry::read(support, AT_FDCWD));
  EXPECT_TRUE(MigrationEntry::read(version_, AT_FDCWD)) << "retained versions are not the item";
  EXPECT_TRUE(AppManager::loadRecords(disk_).empty());
}

// A tampered record names what uninstall deletes: nothing outside the disk (directly, or
// through a link planted on it), no support file outside the home folder or named relative to
// the working folder or through "..", and no link left by the user when the copy is not on the
// disk.
TEST_F(ItemOperationsTest, UninstallOfHostileRecordsDeletesNothingOutsideTheDiskOrHome) {
  const std::string outsider = root_.child("precious");
  writeFile(outsider + "/Tool.app/data.txt", "keep");
  writeFile(outsider + "/support.txt", "keep");
  ASSERT_EQ(symlink(outsider.c_str(), (disk_ + "/evil").c_str()), 0);
  const std::string home = root_.child("home");
  writeFile(home + "/Library/Tool/settings", "mine");
  const MigratedApp genuine = app_;

  struct Hostile {
    std::string target;
    std::vector<std::string> supportFiles;
  };
  const std::vector<Hostile> records = {
      {outsider + "/Tool.app", {}},
      {disk_ + "/evil/Tool.app", {}},
      {disk_ + "/Nothing.app",
       {outsider + "/support.txt", "relative/support.txt", home, home + "/../precious", home + "/Library/x/../Tool",
        "Library/Tool"}},
  };
  for (const auto& hostile : records) {
    app_ = genuine;
    app_.id = makeUuidString();
    app_.targetPath = hostile.target;
    app_.supportFiles = hostile.supportFiles;
    AppManager::writeMigratedApps({genuine, app_}, AppManager::getMigratedAppsFilePath(disk_));
    // Run from the home folder, where a relative support file would find something.
    const CurrentDirectory inHome(home);
    EXPECT_EQ(operate(Operation::uninstall).kind, MigrationManager::OperationResult::Kind::failed) << hostile.target;
    EXPECT_EQ(readFile(outsider + "/Tool.app/data.txt"), "keep") << hostile.target;
    EXPECT_EQ(readFile(outsider + "/support.txt"), "keep") << hostile.target;
    EXPECT_EQ(readFile(home + "/Library/Tool/settings"), "mine") << hostile.target;
    EXPECT_TRUE(MigrationEntry::read(target_ + "/Contents/Info.plist", AT_FDCWD)) << hostile.target;
    EXPECT_EQ(MigrationEntry::read(original_, AT_FDCWD).value().kind, MigrationEntry::Kind::symbolicLink)
        << hostile.target;
    EXPECT_NE(log_.find(localized("log.uninstall_complete_with_errors")), std::string::npos) << log_;
  }
  // A support file inside the home folder is the item's own and goes.
  app_ = genuine;
  app_.supportFiles = {home + "/Library/Tool"};
  EXPECT_EQ(operate(Operation::uninstall).kind, MigrationManager::OperationResult::Kind::succeeded) << log_;
  EXPECT_FALSE(MigrationEntry::read(home + "/Library/Tool", AT_FDCWD));
  EXPECT_FALSE(MigrationEntry::read(target_, AT_FDCWD));
}

// A record read from the disk may name its places relative to whatever folder Corvane runs in,
// climb through "..", or name a folder holding other items' copies or a transfer under way,
// whose copy no record names yet. Such a record loads as written; moving it back, restoring it
// and uninstalling it are refused with the reason before anything is touched.
TEST_F(ItemOperationsTest, RecordsNamingNoDefinitePlaceOrAFolderOfOtherItemsLoadButNoOperationTouchesAnything) {
  const std::string me = disk_ + "/Directories/home/me";
  const std::string staging = me + "/.corvane-transfer-" + makeUuidString();
  writeFile(staging + "/Project/a.txt", "on its way");
  writeFile(root_.child("rollback.sh"), "#!/bin/sh\nexit 0\n", 0755);
  struct Hostile {
    std::string original, target, key, detail;
  };
  const std::string indefinite = "migration.safety.indefinite_path";
  const std::string transfer = "migration.safety.holds_transfer";
  const std::vector<Hostile> records = {
      // Run from root_, "Applications/Tool.app" is the genuine record's link.
      {"Applications/Tool.app", target_, indefinite, "Applications/Tool.app"},
      {root_.child("Applications/x/../Tool.app"), target_, indefinite, root_.child("Applications/x/../Tool.app")},
      {original_, disk_ + "/Applications/./Tool.app", indefinite, disk_ + "/Applications/./Tool.app"},
      {"", disk_ + "/Applications", "migration.safety.holds_other_items", disk_ + "/Applications"},
      {"", me, transfer, me},
      {"", disk_ + "/Directories/home", transfer, disk_ + "/Directories/home"},
      {"", staging + "/Project", transfer, staging + "/Project"},
  };
  const MigratedApp genuine = app_;
  const CurrentDirectory atRoot(root_.path());
  for (std::size_t index = 0; index < records.size(); ++index) {
    const Hostile& hostile = records[index];
    SCOPED_TRACE(hostile.original + " -> " + hostile.target);
    MigratedApp record = genuine;
    record.id = makeUuidString();
    record.originalPath = hostile.original;
    record.targetPath = hostile.target;
    record.rollbackScriptPath = "rollback.sh";
    if (record.originalPath.empty()) {
      // A link to the folder at the original place, and a version beside it: without the
      // refusal each operation would go ahead.
      record.originalPath = root_.child("links/" + std::to_string(index));
      makeDirectories(root_.child("links"));
      ASSERT_EQ(symlink(hostile.target.c_str(), record.originalPath.c_str()), 0);
      record.itemType = MigratedItemType::directory;
      const std::string version = hostile.target + "_backup_20240101_120000";
      writeFile(version + "/old.txt", "old");
      record.backupVersions = {BackupRecord{makeUuidString(), version, ReferenceDate::now(), true}};
    }
    AppManager::writeMigratedApps({genuine, record}, AppManager::getMigratedAppsFilePath(disk_));
    const auto loaded = AppManager::loadRecords(disk_);
    const auto found = std::find_if(loaded.begin(), loaded.end(), [&](const auto& app) { return app.id == record.id; });
    ASSERT_NE(found, loaded.end()) << "the file stays readable";
    EXPECT_EQ(found->originalPath, record.originalPath);
    EXPECT_EQ(found->targetPath, record.targetPath);
    EXPECT_EQ(found->rollbackScriptPath, "rollback.sh");
    app_ = *found;

    auto onDisk = [&] {
      auto tree = fullManifest(root_.path());
      std::erase_if(tree, [](const auto& entry) { return entry.first.rfind("disk/.corvane", 0) == 0; });
      return tree;
    };
    const auto before = onDisk();
    for (const auto operation : {Operation::back, Operation::restore, Operation::uninstall}) {
      SCOPED_TRACE(static_cast<int>(operation));
      const auto result = operate(operation);
      EXPECT_EQ(result.kind, MigrationManager::OperationResult::Kind::failed) << log_;
      EXPECT_EQ(result.message, MigrationIssue(hostile.key, hostile.detail).localizedDescription()) << log_;
      EXPECT_EQ(onDisk(), before);
      const auto after = AppManager::loadRecords(disk_);
      EXPECT_TRUE(std::any_of(after.begin(), after.end(), [&](const auto& app) { return app.id == record.id; }));
    }
  }

  // A transfer begins inside the genuine copy while the user is asked to close the program
  // running from it: the uninstall looks again and stops before the link or the copy goes.
  app_ = genuine;
  AppManager::writeMigratedApps({genuine}, AppManager::getMigratedAppsFilePath(disk_));
  std::filesystem::copy_file("/bin/sleep", target_ + "/Contents/MacOS/sleeper");
  auto program = OccupantProcess::running(target_ + "/Contents/MacOS/sleeper", {"600"});
  const std::string late = target_ + "/Contents/.corvane-transfer-" + makeUuidString();
  const auto result = operate(Operation::uninstall, {}, [&](const std::string&, const std::string&, const auto&) {
    makeDirectories(late + "/Plugin");
    program.stop();
    return true;
  });
  EXPECT_EQ(result.message, MigrationIssue(transfer, target_).localizedDescription()) << log_;
  EXPECT_TRUE(MigrationEntry::read(late + "/Plugin", AT_FDCWD));
  EXPECT_EQ(MigrationEntry::read(original_, AT_FDCWD).value().kind, MigrationEntry::Kind::symbolicLink);
  EXPECT_EQ(AppManager::loadRecords(disk_).size(), 1u);
}

}  // namespace
}  // namespace corvane
