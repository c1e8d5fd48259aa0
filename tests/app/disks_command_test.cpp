#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "engine/manifest/migration_entry.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/loop_disk.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/process.h"
#include "platform/volume_description.h"

namespace corvane {
namespace {

platform::ProcessResult git(const std::string& repository, std::vector<std::string> arguments) {
  platform::ProcessRequest request;
  request.executable = "/usr/bin/git";
  request.arguments = {"-C", repository};
  request.arguments.insert(request.arguments.end(), arguments.begin(), arguments.end());
  return platform::runProcess(request);
}

std::string linkText(const std::string& path) {
  auto entry = MigrationEntry::read(path, AT_FDCWD);
  return entry && entry->link ? *entry->link : std::string();
}

// A user's project under git on the internal disk, a USB-like disk below a temporary volumes
// root, a temporary file table, and a launcher in the place of the administrator dialog.
class DisksCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      internal_ = TestVolume::create(VolumeKind::ext4, 128 << 20);
      disk_ = LoopDisk::create("Backup");
    } catch (const VolumeUnavailable& unavailable) {
      GTEST_SKIP() << "needs loop volumes: " << unavailable.what();
    }
    mkdir(root().c_str(), 0755);
    disk_->mount(at("Backup"));
    item_ = internal_->child("home/me/Project");
    writeFile(item_ + "/src/main.c", "int main(void) { return 0; }\n");
    writeFile(item_ + "/README", "a project\n");
    ASSERT_TRUE(git(item_, {"init", "-q"}).exit.succeeded());
    ASSERT_TRUE(git(item_, {"add", "-A"}).exit.succeeded());
    ASSERT_TRUE(
        git(item_, {"-c", "user.name=T", "-c", "user.email=t@example.com", "commit", "-qm", "start"}).exit.succeeded());
    writeFile(work_.child("launcher"), "#!/bin/sh\nexec \"$@\"\n");
    chmod(work_.child("launcher").c_str(), 0755);
  }

  CorvaneRun corvane(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--lang", "en"});
    return runCorvane(arguments, {.environment = {{"CORVANE_VOLUMES_ROOTS", root()},
                                                  {"CORVANE_FSTAB", work_.child("fstab")},
                                                  {"CORVANE_ADMINISTRATOR_LAUNCHER", work_.child("launcher")}}});
  }

  nlohmann::json disksJson() {
    auto run = corvane({"disks", "--json"});
    EXPECT_EQ(run.exitStatus, 0) << run.standardError;
    return nlohmann::json::parse(run.standardOutput);
  }

  // The project works through its link: git sees its one commit and no change.
  void expectProjectIntact() {
    auto status = git(item_, {"status", "--porcelain"});
    EXPECT_TRUE(status.exit.succeeded()) << status.standardError;
    EXPECT_EQ(status.standardOutput, "");
    EXPECT_EQ(readFile(item_ + "/src/main.c"), "int main(void) { return 0; }\n");
  }

  std::string root() const { return work_.child("Volumes"); }
  std::string at(const std::string& name) const { return root() + "/" + name; }

  TemporaryDirectory work_;
  std::unique_ptr<TestVolume> internal_;
  std::unique_ptr<LoopDisk> disk_;
  std::string item_;
};

TEST_F(DisksCommandTest, MigrateWithoutToLandsOnTheChosenDiskAndARemountedDiskIsRepairedBothWays) {
  // No --to: the disk manager's choice, protected on the way through the gate.
  auto migrated = corvane({"migrate", item_, "--protect", "--defer"});
  ASSERT_EQ(migrated.exitStatus, 0) << migrated.standardError;
  const std::string target = at("Backup") + "/Directories" + item_;
  EXPECT_EQ(linkText(item_), target);
  expectProjectIntact();
  const auto uuid = platform::describeVolume(at("Backup")).uuid;
  ASSERT_TRUE(uuid);
  EXPECT_NE(readFile(work_.child("fstab")).find("UUID=" + *uuid), std::string::npos);

  auto listed = disksJson();
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0]["path"], at("Backup"));
  EXPECT_EQ(listed[0]["label"], "Backup");
  EXPECT_EQ(listed[0]["destination"], true);
  EXPECT_EQ(listed[0]["protected"], true);
  auto manual = corvane({"disks", "protect", "--manual"});
  EXPECT_NE(manual.standardOutput.find("UUID=" + *uuid), std::string::npos) << manual.standardOutput;

  // The disk comes back as Backup1 because a leftover Backup folder holds a file.
  disk_->unmount();
  mkdir(at("Backup").c_str(), 0755);
  writeFile(at("Backup") + "/stale.txt", "left behind");
  disk_->mount(at("Backup1"));
  listed = disksJson();
  ASSERT_EQ(listed.size(), 1u);
  ASSERT_EQ(listed[0]["driftedLinks"].size(), 1u);
  EXPECT_EQ(listed[0]["driftedLinks"][0]["originalPath"], item_);
  EXPECT_EQ(listed[0]["driftedLinks"][0]["currentTarget"], at("Backup1") + "/Directories" + item_);
  auto list = corvane({"list", "--disk", at("Backup1")});
  EXPECT_NE(list.standardOutput.find("an old mount path"), std::string::npos) << list.standardOutput;

  // Repair by remounting: the leftover folder goes (after saying what it holds), the disk
  // mounts in its place and the untouched link works again.
  auto refused = corvane({"disks", "repair", at("Backup")});
  EXPECT_NE(refused.exitStatus, 0);
  EXPECT_NE(refused.standardOutput.find("stale.txt"), std::string::npos) << refused.standardOutput;
  EXPECT_TRUE(MigrationEntry::read(at("Backup") + "/stale.txt", AT_FDCWD));
  auto repaired = corvane({"disks", "repair", at("Backup"), "--yes"});
  ASSERT_EQ(repaired.exitStatus, 0) << repaired.standardOutput << repaired.standardError;
  EXPECT_TRUE(platform::isMountPoint(at("Backup")));
  EXPECT_FALSE(MigrationEntry::read(at("Backup") + "/stale.txt", AT_FDCWD));
  EXPECT_EQ(linkText(item_), target);
  expectProjectIntact();

  // Repair by relinking: the link and the record follow the disk to Backup1.
  disk_->unmountAll();
  disk_->mount(at("Backup1"));
  const std::string moved = at("Backup1") + "/Directories" + item_;
  auto relinked = corvane({"disks", "relink", at("Backup1")});
  ASSERT_EQ(relinked.exitStatus, 0) << relinked.standardOutput << relinked.standardError;
  EXPECT_EQ(linkText(item_), moved);
  expectProjectIntact();
  auto records = nlohmann::json::parse(corvane({"list", "--disk", at("Backup1"), "--json"}).standardOutput);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]["targetPath"], moved);
  EXPECT_EQ(records[0]["link"], "inPlace");
  auto again = corvane({"disks", "relink", at("Backup1")});
  EXPECT_EQ(again.exitStatus, 0);
  EXPECT_NE(again.standardOutput.find("No link points"), std::string::npos) << again.standardOutput;
}

}  // namespace
}  // namespace corvane
