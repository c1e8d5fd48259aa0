#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "catalogue/app_manager.h"
#include "engine/manifest/migration_entry.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/sample_tree.h"
#include "fixtures/test_volume.h"
#include "platform/process.h"
#include "settings/localization.h"
#include "support/paths.h"

namespace corvane {
namespace {

std::vector<std::string> stagingDirectories(const std::string& directory) {
  std::vector<std::string> found;
  if (DIR* dir = opendir(directory.c_str())) {
    while (dirent* item = readdir(dir)) {
      if (std::string(item->d_name).rfind(".corvane-transfer-", 0) == 0)
        found.push_back(directory + "/" + item->d_name);
    }
    closedir(dir);
  }
  return found;
}

class MigrateCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      internal_ = TestVolume::create(VolumeKind::ext4, 256 << 20);
      disk_ = TestVolume::create(VolumeKind::ext4, 256 << 20);
    } catch (const VolumeUnavailable& unavailable) {
      GTEST_SKIP() << "needs two ext4 volumes: " << unavailable.what();
    }
    item_ = internal_->child("home/me/Work");
    buildSampleTree(item_, {.sparseFile = true});
  }

  // Starts a migration of a large item and returns once its copy is being written to staging.
  platform::ChildProcess startLargeMigration() {
    writeFile(item_ + "/large.bin", std::string(96 << 20, 'L'));
    platform::ProcessRequest request;
    request.executable = corvaneBinaryPath();
    request.arguments = {"--lang", "en", "migrate", item_, "--to", disk_->mountPoint(), "--defer"};
    auto child = platform::ChildProcess::spawn(request);
    bool copying = false;
    for (int i = 0; i < 3000 && !copying; ++i) {
      for (const auto& staging : stagingDirectories(parent())) {
        copying |= static_cast<bool>(MigrationEntry::read(staging + "/Work/Contents", AT_FDCWD));
      }
      if (!copying) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(copying) << "the copy never started";
    return child;
  }
  std::string parent() const { return disk_->child("Directories" + parentPath(item_)); }

  std::unique_ptr<TestVolume> internal_;
  std::unique_ptr<TestVolume> disk_;
  std::string item_;
};

TEST_F(MigrateCommandTest, MovesTheItemRecordsItAndSkipsItTheSecondTime) {
  auto first = runCorvane({"migrate", item_, "--to", disk_->mountPoint(), "--defer", "--json"});
  ASSERT_EQ(first.exitStatus, 0) << first.standardError;
  auto outcomes = nlohmann::json::parse(first.standardOutput);
  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_EQ(outcomes[0]["outcome"], "migrated");
  const std::string target = disk_->child("Directories" + item_);
  EXPECT_EQ(outcomes[0]["target"], target);
  auto link = MigrationEntry::read(item_, AT_FDCWD);
  ASSERT_TRUE(link && link->link);
  EXPECT_EQ(*link->link, target);
  EXPECT_EQ(readFile(item_ + "/Contents/Info.plist"), "<plist>sample</plist>\n");

  auto listed = runCorvane({"list", "--disk", disk_->mountPoint(), "--json"});
  ASSERT_EQ(listed.exitStatus, 0) << listed.standardError;
  auto records = nlohmann::json::parse(listed.standardOutput);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]["originalPath"], item_);
  EXPECT_EQ(records[0]["link"], "inPlace");

  auto second = runCorvane({"migrate", item_, "--to", disk_->mountPoint(), "--defer", "--json"});
  EXPECT_EQ(second.exitStatus, 0);
  EXPECT_EQ(nlohmann::json::parse(second.standardOutput)[0]["outcome"], "skipped");
}

TEST_F(MigrateCommandTest, FileHeldOpenLeavesTheItemAndNamesTheProgramInTextAndJson) {
  const int held = ::open((item_ + "/Contents/Info.plist").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(held, 0);
  const std::string holder = "PID " + std::to_string(::getpid());
  auto text = runCorvane({"--lang", "en", "migrate", item_, "--to", disk_->mountPoint(), "--defer"});
  EXPECT_NE(text.standardOutput.find(holder), std::string::npos) << text.standardOutput;
  auto json = runCorvane({"migrate", item_, "--to", disk_->mountPoint(), "--defer", "--json"});
  ::close(held);
  auto outcomes = nlohmann::json::parse(json.standardOutput);
  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_EQ(outcomes[0]["outcome"], "deferred");
  EXPECT_NE(outcomes[0]["message"].get<std::string>().find(holder), std::string::npos) << json.standardOutput;
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD)->kind, MigrationEntry::Kind::directory);
}

TEST_F(MigrateCommandTest, FatDestinationFailsWithTheReasonAndChangesNothing) {
  auto fat = TestVolume::create(VolumeKind::fat);
  auto result = runCorvane({"--lang", "en", "migrate", item_, "--to", fat->mountPoint(), "--defer"});
  EXPECT_EQ(result.exitStatus, 1);
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD)->kind, MigrationEntry::Kind::directory);
  EXPECT_TRUE(stagingDirectories(fat->child("Directories" + parentPath(item_))).empty());
}

TEST_F(MigrateCommandTest, KilledMidCopyLeavesTheSourceAndDoesNotConfuseTheNextRun) {
  auto child = startLargeMigration();
  child.kill();  // without warning
  ASSERT_TRUE(child.waitFor(std::chrono::seconds(10)));
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD)->kind, MigrationEntry::Kind::directory);
  EXPECT_EQ(readFile(item_ + "/Contents/Info.plist"), "<plist>sample</plist>\n");

  // The next run ignores the leftover staging directory and completes.
  auto again = runCorvane({"migrate", item_, "--to", disk_->mountPoint(), "--defer"});
  EXPECT_EQ(again.exitStatus, 0) << again.standardError;
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD)->kind, MigrationEntry::Kind::symbolicLink);
  EXPECT_EQ(readFile(item_ + "/large.bin").size(), static_cast<std::size_t>(96 << 20));
}

TEST_F(MigrateCommandTest, InterruptRollsBackAndSaysSo) {
  auto child = startLargeMigration();
  ::kill(child.pid(), SIGINT);
  auto exit = child.waitFor(std::chrono::seconds(60));
  ASSERT_TRUE(exit);
  child.finishOutput(std::chrono::seconds(2));
  // Either the interruption caught the copy (rolled back, status 1) or the item had already
  // switched; in both cases nothing is half done.
  const auto kind = MigrationEntry::read(item_, AT_FDCWD)->kind;
  if (exit->exitCode == 1) {
    EXPECT_EQ(kind, MigrationEntry::Kind::directory);
    EXPECT_NE(child.standardError().find("rolled back"), std::string::npos) << child.standardError();
  } else {
    EXPECT_EQ(kind, MigrationEntry::Kind::symbolicLink);
  }
  EXPECT_TRUE(stagingDirectories(parent()).empty());
}

TEST(ItemCommandsTest, BackUninstallAndRestoreFromTheCommandLine) {
  CORVANE_TEST_VOLUME(internal, VolumeKind::tmpfs, 128 << 20);
  CORVANE_TEST_VOLUME(external, VolumeKind::tmpfs, 128 << 20);
  const std::string item = internal->child("home/me/Notes");
  const std::string other = internal->child("home/me/Drafts");
  buildSampleTree(item);
  buildSampleTree(other);
  auto migrated = runCorvane({"migrate", item, other, "--to", external->mountPoint()});
  ASSERT_EQ(migrated.exitStatus, 0) << migrated.standardOutput << migrated.standardError;

  // Back by path: the disk is found above the link's target.
  auto back = runCorvane({"back", item});
  EXPECT_EQ(back.exitStatus, 0) << back.standardOutput << back.standardError;
  EXPECT_NE(back.standardOutput.find(localized("log.migrate_back_complete")), std::string::npos) << back.standardOutput;
  EXPECT_EQ(MigrationEntry::read(item, AT_FDCWD)->kind, MigrationEntry::Kind::directory);
  EXPECT_TRUE(MigrationEntry::read(item + "/Contents/Info.plist", AT_FDCWD));
  ASSERT_EQ(AppManager::loadRecords(external->mountPoint()).size(), 1u) << "the other item's record stays";

  // A second move-back finds no record.
  auto again = runCorvane({"back", "Notes", "--disk", external->mountPoint()});
  EXPECT_EQ(again.exitStatus, 1);
  EXPECT_NE(again.standardError.find(localizedFormat("cli.item.not_found", "Notes")), std::string::npos)
      << again.standardError;

  // A version that does not exist names the versions there are and changes nothing.
  auto restore = runCorvane({"restore", "Drafts", "--version", "20000101_000000", "--disk", external->mountPoint()});
  EXPECT_EQ(restore.exitStatus, 1);
  EXPECT_EQ(MigrationEntry::read(other, AT_FDCWD)->kind, MigrationEntry::Kind::symbolicLink);

  // Uninstall deletes only after a confirmation: none without a terminal and without --yes.
  const std::string target = external->child("Directories" + other);
  auto refused = runCorvane({"uninstall", "Drafts", "--disk", external->mountPoint()}, {.standardInput = "y\n"});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_NE(refused.standardError.find(localized("cli.uninstall.no_terminal")), std::string::npos)
      << refused.standardError;
  EXPECT_TRUE(MigrationEntry::read(target, AT_FDCWD));
  auto uninstalled = runCorvane({"uninstall", "Drafts", "--disk", external->mountPoint(), "--yes"});
  EXPECT_EQ(uninstalled.exitStatus, 0) << uninstalled.standardOutput << uninstalled.standardError;
  EXPECT_NE(uninstalled.standardOutput.find(localized("log.uninstall_complete")), std::string::npos);
  EXPECT_FALSE(MigrationEntry::read(other, AT_FDCWD));
  EXPECT_FALSE(MigrationEntry::read(target, AT_FDCWD));
  EXPECT_TRUE(AppManager::loadRecords(external->mountPoint()).empty());
}

}  // namespace
}  // namespace corvane
