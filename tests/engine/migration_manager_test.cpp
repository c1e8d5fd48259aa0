#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "catalogue/app_manager.h"
#include "engine/migration_manager.h"
#include "engine/migration_socket_probe.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/sample_tree.h"
#include "fixtures/test_volume.h"
#include "engine/migration_issue.h"
#include "platform/file_system.h"
#include "support/localization.h"

namespace corvane {
namespace {

class AnswerLater final : public MigrationPreflightPrompter {
 public:
  MigrationPreflightChoice choose(const std::vector<MigrationRuntimeBlocker>&) override {
    return MigrationPreflightChoice::later;
  }
  bool authorize(const std::string&) override { return false; }
  void alert(const std::string&, const std::string&) override {}
};

class MigrationManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      internal_ = TestVolume::create(VolumeKind::tmpfs, 256 << 20);
      disk_ = TestVolume::create(VolumeKind::tmpfs, 256 << 20);
    } catch (const VolumeUnavailable& unavailable) {
      GTEST_SKIP() << "needs tmpfs volumes: " << unavailable.what();
    }
  }

  std::string makeItem(const std::string& relative) {
    const std::string path = internal_->child(relative);
    buildSampleTree(path);
    return path;
  }

  void runBatch(MigrationManager& manager, const std::vector<std::string>& items) {
    ASSERT_TRUE(manager.migrateApps(items, disk_->mountPoint()));
    ASSERT_TRUE(queue_.runUntil([&] { return !manager.isMigrating(); }, std::chrono::minutes(2)));
  }

  MigrationManager::Hooks hooks() {
    MigrationManager::Hooks result;
    result.prompter = &prompter_;
    result.services.probe = MigrationSocketProbe::probeWith(std::string(corvaneBinaryPath()));
    return result;
  }

  std::unique_ptr<TestVolume> internal_;
  std::unique_ptr<TestVolume> disk_;
  MainQueue queue_;
  AnswerLater prompter_;
};

TEST_F(MigrationManagerTest, SixItemsNeverRunMoreThanFourTransfersAtOnce) {
  std::vector<std::string> items;
  for (int i = 0; i < 6; ++i) items.push_back(makeItem("home/item" + std::to_string(i)));
  std::atomic<int> active{0};
  std::atomic<int> peak{0};
  auto batchHooks = hooks();
  // The open-file check runs inside each transfer: holding it a moment makes overlap visible.
  batchHooks.checkUsage = [&](const std::string&, const MigrationManifest&) {
    const int now = ++active;
    int seen = peak.load();
    while (now > seen && !peak.compare_exchange_weak(seen, now)) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    --active;
  };
  AppManager apps(queue_);
  MigrationManager manager(queue_, apps, batchHooks);
  runBatch(manager, items);
  EXPECT_LE(peak.load(), 4);
  EXPECT_GE(peak.load(), 2) << "items did not run side by side at all";
  EXPECT_EQ(manager.activeMigrationProgress().succeeded, 6);
  for (const auto& item : items) {
    EXPECT_EQ(MigrationEntry::read(item, AT_FDCWD)->kind, MigrationEntry::Kind::symbolicLink);
  }
  // Every success was recorded on the disk.
  EXPECT_EQ(AppManager::loadRecords(disk_->mountPoint()).size(), 6u);
  EXPECT_NE(manager.logText().find(localized("log.separator_line")), std::string::npos);
}

TEST_F(MigrationManagerTest, ItemAlreadyLinkedToItsDestinationIsSkippedNotFailed) {
  const std::string item = makeItem("home/done");
  const std::string application = makeItem("Applications/Tool.app");
  AppManager apps(queue_);
  MigrationManager manager(queue_, apps, hooks());
  runBatch(manager, {item, application});
  EXPECT_EQ(manager.activeMigrationProgress().succeeded, 2);
  EXPECT_TRUE(MigrationEntry::read(disk_->child("Applications/Tool.app/Contents/Info.plist"), AT_FDCWD));
  EXPECT_TRUE(MigrationEntry::read(disk_->child("Directories" + item + "/Contents/Info.plist"), AT_FDCWD));

  MigrationManager again(queue_, apps, hooks());
  runBatch(again, {item});
  const auto snapshot = again.activeMigrationProgress();
  EXPECT_EQ(snapshot.skipped, 1);
  EXPECT_EQ(snapshot.failed, 0);
  EXPECT_NE(again.logText().find(localized("log.migrate_already_done")), std::string::npos);
}

TEST_F(MigrationManagerTest, ProtectedLocationsAreRefusedBeforeAnyWork) {
  AppManager apps(queue_);
  MigrationManager manager(queue_, apps, hooks());
  EXPECT_THROW(manager.migrateApps({"/usr"}, disk_->mountPoint()), MigrationIssue);
  EXPECT_FALSE(manager.isMigrating());
}

TEST(MigrationDestinationTest, ApplicationsAndDirectoriesHaveTheirOwnFolders) {
  EXPECT_EQ(MigrationManager::destinationFor("/Users/a/Projects", "/Volumes/X"), "/Volumes/X/Directories/Users/a/Projects");
  EXPECT_EQ(MigrationManager::destinationFor("/Applications/Foo.app", "/Volumes/X"), "/Volumes/X/Applications/Foo.app");
  EXPECT_EQ(MigrationManager::destinationFor("/home/me/./data/", "/media/me/disk"), "/media/me/disk/Directories/home/me/data");
}

}  // namespace
}  // namespace corvane
