// One item's transfer and the manager's operations on two real ext4 volumes: transfers that
// keep the original, meet a changing source, a filling or unfit destination; batches; moving
// an item back (the round trip, conflicts at either end, a filling internal disk) and who may
// start a move-back when.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "catalogue/app_manager.h"
#include "catalogue/migrated_apps_file.h"
#include "engine/migration_copy_workload.h"
#include "engine/migration_manager.h"
#include "engine/migration_socket_probe.h"
#include "engine/migration_test_support.h"
#include "engine/migration_transfer.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/sample_tree.h"
#include "fixtures/test_volume.h"
#include "platform/posix_error.h"
#include "platform/volume.h"
#include "support/localization.h"
#include "support/paths.h"
#include "support/update_activity.h"

namespace corvane {
namespace {

class MigrateBackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      internal_ = TestVolume::create(VolumeKind::ext4);
      external_ = TestVolume::create(VolumeKind::ext4);
    } catch (const VolumeUnavailable& unavailable) {
      GTEST_SKIP() << "needs two ext4 volumes: " << unavailable.what();
    }
    item_ = internal_->child("home/me/Project");
    buildSampleTree(item_, {.fifo = true, .staleSocket = true, .sparseFile = true, .extendedAttributes = true,
                            .accessControlList = true});
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
    result.checkUsage = [this](const std::string& source, const MigrationManifest& manifest) {
      if (duringCheck_) duringCheck_(source, manifest);
    };
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
    configuration.makeAccess = [](const std::string& path) { return std::make_unique<MigrationAccess>(path); };
    MigrationItemProgress item;
    item.name = "item";
    MigrationProgressTracker tracker({item});
    makeDirectories(parentPath(destination_));
    auto result = MigrationTransfer(configuration)
                      .transfer(item_, destination_, MigrationTransfer::Placement::migrate, tracker, "item", retain, {},
                                [&](const std::string& key, const std::vector<std::string>&) { log_ += key + "\n"; });
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
    manager.migrateBackToMainDisk(app, disk_, [&](const MigrationManager::OperationResult& outcome) { result = outcome; });
    EXPECT_TRUE(queue_.runUntil([&] { return result.has_value(); }, std::chrono::minutes(2)));
    log_ = manager.logText();
    return result.value_or(MigrationManager::OperationResult{});
  }

  std::unique_ptr<TestVolume> internal_, external_;
  std::string item_, disk_, destination_;
  std::map<std::string, std::string> before_;
  MigrationItemProgress lastProgress_;
  MainQueue queue_;
  AppManager apps_{queue_};
  DeferringPrompter prompter_;
  std::function<void(const std::string&, const MigrationManifest&)> duringCheck_;
  std::string log_;
};

TEST_F(MigrateBackTest, RoundTripRestoresEverythingButInodesAndChangeTimes) {
  auto before = fullManifest(item_);
  const auto app = migrate();
  EXPECT_EQ(app.targetPath, disk_ + "/Directories" + item_);
  const auto result = moveBack(app);
  ASSERT_EQ(result.kind, MigrationManager::OperationResult::Kind::succeeded) << result.message << "\n" << log_;

  auto after = fullManifest(item_);
  // A link that climbed out of the item was given the absolute target it named on the way
  // out and keeps it on the way back: it still reaches the same file.
  const std::string climbing = "Contents/Resources/deep/climbs-out";
  ASSERT_TRUE(before.count(climbing));
  EXPECT_EQ(resolvingSymlinksInPath(item_ + "/" + climbing), resolvingSymlinksInPath(internal_->child("home/me/outside.txt")));
  before.erase(climbing);
  after.erase(climbing);
  before.erase("Contents/stale.sock");  // left out on the way there
  EXPECT_EQ(after, before);

  EXPECT_FALSE(MigrationEntry::read(app.targetPath, AT_FDCWD)) << "the external copy is removed";
  EXPECT_TRUE(AppManager::loadRecords(disk_).empty());
  EXPECT_FALSE(hasStagingLeft(parentPath(item_)));
  for (const auto* key : {"log.migrate_back_start", "log.migrate_back_swap_success", "log.cleaning_migration_record",
                          "log.migration_record_cleaned", "log.migrate_back_complete"}) {
    EXPECT_NE(log_.find(localized(key)), std::string::npos) << key;
  }
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
  EXPECT_NE(result.message.find(localized("migration.preflight.restore_wrong_target")), std::string::npos) << result.message;
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
  // Read the file itself: the catalogue hides a record whose original place holds a real
  // folder, but the record must still be there for when the user sorts the conflict out.
  const auto stored = MigratedAppsFile::read(AppManager::getMigratedAppsFilePath(disk_));
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_EQ(stored.front().id, app.id);
  EXPECT_EQ(log_.find(localized("log.migration_record_cleaned")), std::string::npos);
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

TEST_F(MigrateBackTest, AdmissionRefusesDuringABatchTwiceForOneItemAndDuringAnUpdate) {
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
  ASSERT_TRUE(queue_.runUntil([&] { return first.has_value() && !manager.isMigrating(); }, std::chrono::minutes(2)));
  EXPECT_EQ(first->kind, MigrationManager::OperationResult::Kind::succeeded) << manager.logText();
  EXPECT_TRUE(manager.migratingBackItems().empty());
  EXPECT_NE(manager.logText().find(localized("log.migrate_back_in_progress")), std::string::npos);
  EXPECT_NE(manager.logText().find(localized("log.migrate_back_blocked_by_migration")), std::string::npos);
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
  // The data's size, rounded up to one page, stays free: the space check counts bytes and
  // passes, but every small file takes a whole page, so the copy runs out part of the way.
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


TEST_F(MigrationManagerTest, SixItemsNeverRunMoreThanFourTransfersAtOnce) {
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
  runBatch(manager, items);
  EXPECT_LE(peak.load(), 4);
  EXPECT_GE(peak.load(), 2) << "items did not run side by side at all";
  EXPECT_EQ(manager.activeMigrationProgress().succeeded, 6);
  for (const auto& item : items) {
    EXPECT_EQ(MigrationEntry::read(item, AT_FDCWD).value().kind, MigrationEntry::Kind::symbolicLink);
  }
  EXPECT_EQ(AppManager::loadRecords(disk_).size(), 6u) << "every success is recorded on the disk";
  EXPECT_NE(manager.logText().find(localized("log.separator_line")), std::string::npos);
}

TEST_F(MigrationManagerTest, ProtectedItemsAreRefusedAndOnesAlreadyLinkedAreSkipped) {
  const std::string application = internal_->child("Applications/Tool.app");
  buildSampleTree(application);
  MigrationManager manager(queue_, apps_, hooks());
  EXPECT_THROW(manager.migrateApps({"/usr"}, disk_), MigrationIssue);
  EXPECT_FALSE(manager.isMigrating()) << "refused before any work";
  runBatch(manager, {item_, application});
  EXPECT_EQ(manager.activeMigrationProgress().succeeded, 2);
  EXPECT_TRUE(MigrationEntry::read(disk_ + "/Applications/Tool.app/Contents/Info.plist", AT_FDCWD));
  EXPECT_TRUE(MigrationEntry::read(disk_ + "/Directories" + item_ + "/Contents/Info.plist", AT_FDCWD));

  MigrationManager again(queue_, apps_, hooks());
  runBatch(again, {item_});
  EXPECT_EQ(again.activeMigrationProgress().skipped, 1);
  EXPECT_EQ(again.activeMigrationProgress().failed, 0);
  EXPECT_NE(again.logText().find(localized("log.migrate_already_done")), std::string::npos);
}

TEST(MigrationDestinationTest, ApplicationsAndDirectoriesHaveTheirOwnFoldersAndVolumesNameTheirRoot) {
  EXPECT_EQ(MigrationManager::destinationFor("/Users/a/Projects", "/Volumes/X"), "/Volumes/X/Directories/Users/a/Projects");
  EXPECT_EQ(MigrationManager::destinationFor("/Applications/Foo.app", "/Volumes/X"), "/Volumes/X/Applications/Foo.app");
  EXPECT_EQ(MigrationManager::destinationFor("/home/me/./data/", "/media/me/disk"), "/media/me/disk/Directories/home/me/data");
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/Volumes/X/Applications/Foo.app"), "/Volumes/X");
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/Volumes/My Disk/Directories/Users/a/b"), "/Volumes/My Disk");
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/media/x/Applications/Foo.app"), std::nullopt);
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/Volumes"), std::nullopt);
}

}  // namespace
}  // namespace corvane
