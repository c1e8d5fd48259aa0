#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "catalogue/app_manager.h"
#include "catalogue/migrated_apps_file.h"
#include "engine/manifest/migration_entry.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/process.h"
#include "settings/localization.h"
#include "support/paths.h"
#include "support/uuid.h"

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

  // A record that cannot be written (its folder made immutable) fails the run: the item moved,
  // but nothing would find it again.
  const std::string other = internal_->child("home/me/Other");
  buildSampleTree(other);
  const std::string recordFolder = disk_->child(".corvane");
  ASSERT_EQ(system(("chattr +i '" + recordFolder + "'").c_str()), 0);
  auto unrecorded = runCorvane({"migrate", other, "--to", disk_->mountPoint(), "--defer", "--json"});
  ASSERT_EQ(system(("chattr -i '" + recordFolder + "'").c_str()), 0);
  EXPECT_EQ(unrecorded.exitStatus, 1);
  const auto report = nlohmann::json::parse(unrecorded.standardOutput).at(0);
  EXPECT_EQ(report.at("outcome"), "migrated");
  EXPECT_EQ(report.value("recordSaved", true), false);
  EXPECT_EQ(report.value("message", ""), localized("migration.safety.catalog_failed"));
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

// The question about what blocks the item offers to stop git's file system monitor only when that
// monitor is what blocks: a device file, or a socket in a git directory that another program
// serves, leave "try again" and "later".
TEST_F(MigrateCommandTest, OnlyGitsOwnMonitorIsOfferedToBeStopped) {
  platform::ProcessRequest init;
  init.executable = "/usr/bin/git";
  init.arguments = {"init", "-q", item_ + "/repo"};
  ASSERT_TRUE(platform::runProcess(init).exit.succeeded());
  const std::string gitDirectory = item_ + "/repo/.git";
  auto impersonator = OccupantProcess::listening(gitDirectory, "fsmonitor--daemon.ipc", OccupantSocket::stream);
  ASSERT_EQ(mknod((item_ + "/null").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
  const std::vector<std::string> migrate = {"--lang", "en", "migrate", item_, "--to", disk_->mountPoint(), "--defer"};
  const std::string stop = localizedFormat("cli.prompt.button", 1, localized("migration.preflight.stop"));
  const auto asked = runCorvane(migrate);
  EXPECT_NE(asked.standardError.find(localizedFormat("cli.prompt.button", 1, localized("migration.preflight.retry"))),
            std::string::npos)
      << asked.standardError;
  EXPECT_EQ(asked.standardError.find(stop), std::string::npos) << asked.standardError;
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD)->kind, MigrationEntry::Kind::directory);
  // git's monitor itself (a stand-in: this git has none on Linux) is offered to be stopped.
  impersonator.stop(SIGTERM);
  TemporaryDirectory bin;
  auto monitor = OccupantProcess::listeningAs(bin.child("git"), {"fsmonitor--daemon", "run"}, gitDirectory,
                                              "fsmonitor--daemon.ipc");
  const auto offered = runCorvane(migrate);
  EXPECT_NE(offered.standardError.find(stop), std::string::npos) << offered.standardError;
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD)->kind, MigrationEntry::Kind::directory);
}

// Each destination that cannot take the item is refused with its reason, before anything is
// created: a FAT volume (no links), a path that does not exist, the empty folder an unplugged
// disk leaves, the item's own volume, an item on the destination disk itself, an item with
// another volume mounted inside it, and an item that is not there at all.
TEST_F(MigrateCommandTest, UnfitDestinationsAreRefusedWithTheReasonAndNothingIsCreated) {
  auto fat = TestVolume::create(VolumeKind::fat);
  const std::string missing = internal_->child("no/such/disk");
  const std::string unplugged = internal_->child("media/me/BACKUP");
  ASSERT_EQ(system(("mkdir -p '" + unplugged + "'").c_str()), 0);
  const std::string onDisk = disk_->child("Directories/home/me/Old");
  buildSampleTree(onDisk);
  const std::string holdingMount = internal_->child("home/me/Mounted");
  buildSampleTree(holdingMount);
  const std::string mounted = holdingMount + "/cache";
  ASSERT_EQ(system(("mkdir -p '" + mounted + "' && mount -t tmpfs tmpfs '" + mounted + "'").c_str()), 0);
  struct Unmount {
    std::string path;
    ~Unmount() { static_cast<void>(system(("umount '" + path + "'").c_str())); }
  } unmount{mounted};
  // A second mount of the item's own volume: a mounted disk, but no other file system.
  const std::string sameVolume = internal_->child("media/me/SAME");
  ASSERT_EQ(system(("mkdir -p '" + sameVolume + "' '" + internal_->child("elsewhere") + "' && mount --bind '" +
                    internal_->child("elsewhere") + "' '" + sameVolume + "'")
                       .c_str()),
            0);
  Unmount unbind{sameVolume};

  struct Case {
    std::string item, disk, key, named;
  };
  const std::vector<Case> cases = {
      {item_, fat->mountPoint(), "migration.preflight.filesystem", fat->mountPoint()},
      {item_, missing, "migration.preflight.destination_missing", missing},
      {item_, unplugged, "migration.preflight.destination_not_volume", unplugged},
      {item_, sameVolume, "migration.preflight.destination_same_volume", item_},
      {onDisk, disk_->mountPoint(), "migration.preflight.source_on_destination", onDisk},
      {holdingMount, disk_->mountPoint(), "migration.preflight.holds_mount_point", mounted},
      {internal_->child("home/me/Gone"), disk_->mountPoint(), "error.item_not_found", internal_->child("home/me/Gone")},
  };
  for (const auto& unfit : cases) {
    const auto before = MigrationEntry::read(unfit.item, AT_FDCWD);
    auto result = runCorvane({"migrate", unfit.item, "--to", unfit.disk, "--defer", "--json"});
    EXPECT_EQ(result.exitStatus, 1) << unfit.key;
    const std::string message = nlohmann::json::parse(result.standardOutput).at(0).value("message", "");
    EXPECT_NE(message.find(localized(unfit.key).substr(0, 12)), std::string::npos) << unfit.key << ": " << message;
    EXPECT_NE(message.find(unfit.named), std::string::npos) << unfit.key << ": " << message;
    EXPECT_EQ(MigrationEntry::read(unfit.item, AT_FDCWD), before) << unfit.key;
    EXPECT_FALSE(MigrationEntry::read(unfit.disk + "/Directories" + parentPath(unfit.item), AT_FDCWD)) << unfit.key;
    EXPECT_FALSE(MigrationEntry::read(unfit.disk + "/.corvane/migrated_apps.json", AT_FDCWD)) << unfit.key;
  }
  EXPECT_FALSE(MigrationEntry::read(missing, AT_FDCWD));
  // Listing an unplugged disk reads; it never creates the hidden folder that would push the
  // real disk to another mount path.
  runCorvane({"list", "--disk", unplugged});
  EXPECT_FALSE(MigrationEntry::read(unplugged + "/.corvane", AT_FDCWD));
}

// Six commands saving to one disk at once each re-read the list under the disk's lock: no
// record is lost. A record file that cannot be read is kept under a dated name, not overwritten.
TEST_F(MigrateCommandTest, ParallelMigrationsKeepEveryRecordAndAnUnreadableFileIsKept) {
  std::vector<std::string> items;
  for (int index = 0; index < 6; ++index) {
    items.push_back(internal_->child("home/me/Item" + std::to_string(index)));
    writeFile(items.back() + "/data.txt", "item " + std::to_string(index));
  }
  std::vector<platform::ChildProcess> children;
  for (const auto& item : items) {
    platform::ProcessRequest request;
    request.executable = corvaneBinaryPath();
    request.arguments = {"migrate", item, "--to", disk_->mountPoint(), "--yes"};
    children.push_back(platform::ChildProcess::spawn(request));
  }
  for (auto& child : children) {
    const auto exit = child.waitFor(std::chrono::minutes(2));
    child.finishOutput(std::chrono::seconds(5));
    EXPECT_TRUE(exit && exit->succeeded()) << child.standardOutput() << child.standardError();
  }
  const std::string file = disk_->child(".corvane/migrated_apps.json");
  EXPECT_EQ(MigratedAppsFile::read(file).size(), items.size());

  writeFile(file, "{ damaged");
  const std::string more = internal_->child("home/me/More");
  writeFile(more + "/data.txt", "more");
  auto migrated = runCorvane({"migrate", more, "--to", disk_->mountPoint(), "--yes"});
  EXPECT_EQ(migrated.exitStatus, 0) << migrated.standardError;
  std::vector<std::string> kept;
  for (const auto& entry : std::filesystem::directory_iterator(disk_->child(".corvane")))
    if (entry.path().filename().string().rfind("migrated_apps.json.unreadable_", 0) == 0) kept.push_back(entry.path());
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(readFile(kept.front()), "{ damaged");
}

TEST_F(MigrateCommandTest, KilledMidCopyLeavesTheSourceAndDoesNotConfuseTheNextRun) {
  auto child = startLargeMigration();
  child.kill();  // without warning
  ASSERT_TRUE(child.waitFor(std::chrono::seconds(10)));
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD)->kind, MigrationEntry::Kind::directory);
  EXPECT_EQ(readFile(item_ + "/Contents/Info.plist"), "<plist>sample</plist>\n");

  // The folder holding the leftover staging directory is no item: the list rebuilt from the
  // disk's folders does not offer it, and a record naming it is refused with the reason.
  auto listed = runCorvane({"list", "--disk", disk_->mountPoint(), "--json"});
  EXPECT_EQ(listed.exitStatus, 0) << listed.standardError;
  EXPECT_EQ(nlohmann::json::parse(listed.standardOutput), nlohmann::json::array()) << listed.standardOutput;
  MigratedApp record;
  record.id = makeUuidString();
  record.appName = "me";
  record.originalPath = internal_->child("elsewhere/me");
  record.targetPath = parent();
  record.migratedDate = ReferenceDate::now();
  const std::string recordFile = AppManager::getMigratedAppsFilePath(disk_->mountPoint());
  AppManager::writeMigratedApps({record}, recordFile);
  auto uninstall = runCorvane({"uninstall", "me", "--disk", disk_->mountPoint(), "--yes"});
  EXPECT_EQ(uninstall.exitStatus, 1);
  EXPECT_NE((uninstall.standardOutput + uninstall.standardError)
                .find(localizedFormat("migration.safety.holds_transfer", parent())),
            std::string::npos)
      << uninstall.standardOutput << uninstall.standardError;
  EXPECT_EQ(stagingDirectories(parent()).size(), 1u);
  std::filesystem::remove(recordFile);

  // The next run ignores the leftover staging directory and completes.
  auto again = runCorvane({"migrate", item_, "--to", disk_->mountPoint(), "--defer"});
  EXPECT_EQ(again.exitStatus, 0) << again.standardError;
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD)->kind, MigrationEntry::Kind::symbolicLink);
  EXPECT_EQ(readFile(item_ + "/large.bin").size(), static_cast<std::size_t>(96 << 20));
}

// A second command on an item another one is moving is told so and touches nothing; the first
// finishes as if alone. (The first is stopped mid-copy so the second surely meets it.)
TEST_F(MigrateCommandTest, ASecondRunOnTheSameItemIsToldItIsBusy) {
  auto first = startLargeMigration();
  ASSERT_EQ(::kill(first.pid(), SIGSTOP), 0);
  auto second = runCorvane({"migrate", item_, "--to", disk_->mountPoint(), "--defer", "--json"});
  ASSERT_EQ(::kill(first.pid(), SIGCONT), 0);
  EXPECT_EQ(second.exitStatus, 1) << second.standardOutput << second.standardError;
  const auto report = nlohmann::json::parse(second.standardOutput).at(0);
  EXPECT_EQ(report.value("message", ""), localizedFormat("migration.transfer.item_busy", item_));
  EXPECT_EQ(stagingDirectories(parent()).size(), 1u) << "only the first one's";

  const auto exit = first.waitFor(std::chrono::seconds(120));
  ASSERT_TRUE(exit);
  EXPECT_EQ(exit->exitCode, 0);
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD)->kind, MigrationEntry::Kind::symbolicLink);
  EXPECT_EQ(AppManager::loadRecords(disk_->mountPoint()).size(), 1u);
  EXPECT_TRUE(stagingDirectories(parent()).empty());
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
  CORVANE_TEST_VOLUME(external, VolumeKind::ext4, 128 << 20);
  const std::string item = internal->child("home/me/Notes");
  const std::string other = internal->child("home/me/Drafts");
  buildSampleTree(item);
  buildSampleTree(other);
  auto migrated = runCorvane({"migrate", item, other, "--to", external->mountPoint()});
  ASSERT_EQ(migrated.exitStatus, 0) << migrated.standardOutput << migrated.standardError;
  const std::string copy = external->child("Directories" + item);

  // Checking a migrated item checks its copy, which is what a move-back would take.
  {
    auto worker = OccupantProcess::workingIn(copy + "/Contents");
    auto checked = runCorvane({"check", item, "--json"});
    EXPECT_EQ(checked.exitStatus, 3) << checked.standardOutput << checked.standardError;
    const auto report = nlohmann::json::parse(checked.standardOutput).at(0);
    EXPECT_EQ(report.at("outcome"), "blocked");
    EXPECT_EQ(report.at("target"), copy);
    EXPECT_NE(report.at("message").get<std::string>().find(std::to_string(worker.pid())), std::string::npos);
  }
  auto idle = runCorvane({"check", item});
  EXPECT_EQ(idle.exitStatus, 0) << idle.standardOutput << idle.standardError;
  EXPECT_NE(idle.standardOutput.find(localizedFormat("cli.check.migrated_copy", item, copy)), std::string::npos);

  // Back by path: the disk is found above the link's target.
  auto back = runCorvane({"back", item});
  EXPECT_EQ(back.exitStatus, 0) << back.standardOutput << back.standardError;
  EXPECT_NE(back.standardOutput.find(localized("log.migrate_back_complete")), std::string::npos) << back.standardOutput;
  EXPECT_EQ(MigrationEntry::read(item, AT_FDCWD)->kind, MigrationEntry::Kind::directory);
  EXPECT_TRUE(MigrationEntry::read(item + "/Contents/Info.plist", AT_FDCWD));
  ASSERT_EQ(AppManager::loadRecords(external->mountPoint()).size(), 1u) << "the other item's record stays";

  // A second move-back finds no record, in text and in the report a script reads.
  auto again = runCorvane({"back", "Notes", "--disk", external->mountPoint()});
  EXPECT_EQ(again.exitStatus, 1);
  EXPECT_NE(again.standardError.find(localizedFormat("cli.item.not_found", "Notes")), std::string::npos)
      << again.standardError;
  again = runCorvane({"back", "Notes", "--disk", external->mountPoint(), "--json"});
  EXPECT_EQ(again.exitStatus, 1);
  EXPECT_EQ(nlohmann::json::parse(again.standardOutput).at(0).at("outcome"), "failed") << again.standardOutput;

  // A version that does not exist names the versions there are and changes nothing.
  auto restore = runCorvane({"restore", "Drafts", "--version", "20000101_000000", "--disk", external->mountPoint()});
  EXPECT_EQ(restore.exitStatus, 1);
  EXPECT_EQ(MigrationEntry::read(other, AT_FDCWD)->kind, MigrationEntry::Kind::symbolicLink);
  restore =
      runCorvane({"restore", "Drafts", "--version", "20000101_000000", "--disk", external->mountPoint(), "--json"});
  EXPECT_EQ(nlohmann::json::parse(restore.standardOutput).at(0).at("message"),
            localizedFormat("cli.restore.no_such_version", "20000101_000000", "Drafts"));

  // Uninstall deletes only after a confirmation: none without a terminal and without --yes.
  const std::string target = external->child("Directories" + other);
  auto refused = runCorvane({"uninstall", "Drafts", "--disk", external->mountPoint()}, {.standardInput = "y\n"});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_NE(refused.standardError.find(localized("cli.uninstall.no_terminal")), std::string::npos)
      << refused.standardError;
  EXPECT_TRUE(MigrationEntry::read(target, AT_FDCWD));
  auto uninstalled = runCorvane({"uninstall", "Drafts", "--disk", external->mountPoint(), "--yes", "--json"});
  EXPECT_EQ(uninstalled.exitStatus, 0) << uninstalled.standardOutput << uninstalled.standardError;
  const auto report = nlohmann::json::parse(uninstalled.standardOutput).at(0);
  EXPECT_EQ(report.at("outcome"), "uninstalled");
  EXPECT_EQ(report.at("target"), target);
  EXPECT_FALSE(MigrationEntry::read(other, AT_FDCWD));
  EXPECT_FALSE(MigrationEntry::read(target, AT_FDCWD));
  EXPECT_TRUE(AppManager::loadRecords(external->mountPoint()).empty());

  // The record file cannot be written (its folder made immutable): the item comes back, and the
  // record that could not go with it is said in the report and the exit status, not only logged.
  migrated = runCorvane({"migrate", item, "--to", external->mountPoint()});
  ASSERT_EQ(migrated.exitStatus, 0) << migrated.standardOutput << migrated.standardError;
  const std::string records = external->child(".corvane");
  ASSERT_EQ(system(("chattr +i '" + records + "'").c_str()), 0);
  back = runCorvane({"back", item, "--json"});
  ASSERT_EQ(system(("chattr -i '" + records + "'").c_str()), 0);
  EXPECT_EQ(back.exitStatus, 1) << back.standardOutput << back.standardError;
  const auto backReport = nlohmann::json::parse(back.standardOutput).at(0);
  EXPECT_EQ(backReport.at("outcome"), "movedBack");
  EXPECT_EQ(backReport.value("recordSaved", true), false);
  EXPECT_EQ(backReport.value("message", ""), localized("migration.safety.catalog_failed"));
  EXPECT_EQ(MigrationEntry::read(item, AT_FDCWD)->kind, MigrationEntry::Kind::directory);
}

// A record is read from a disk anyone can write to: one whose target lies off the disk, is
// reached through a link on it, or holds a whole volume, must not make `back --yes` close the
// programs running there. ("/" is the same case; a test of it would end every process on the
// machine the day it failed.)
TEST(ItemCommandsTest, BackOfARecordNamingATargetOffTheDiskClosesNothingThere) {
  CORVANE_TEST_VOLUME(internal, VolumeKind::tmpfs, 64 << 20);
  CORVANE_TEST_VOLUME(external, VolumeKind::tmpfs, 64 << 20);
  const std::string outside = internal->child("outside/Tool");
  ASSERT_EQ(system(("mkdir -p '" + outside + "' && cp /bin/sleep '" + outside + "/sleep'").c_str()), 0);
  auto program = OccupantProcess::running(outside + "/sleep", {"600"});
  const std::string item = internal->child("home/me/Tool");
  ASSERT_EQ(system(("mkdir -p '" + parentPath(item) + "'").c_str()), 0);
  ASSERT_EQ(symlink(outside.c_str(), item.c_str()), 0);
  ASSERT_EQ(symlink(internal->child("outside").c_str(), external->child("evil").c_str()), 0);

  for (const std::string& target : {outside, external->child("evil/Tool"), internal->mountPoint()}) {
    MigratedApp record;
    record.id = makeUuidString();
    record.appName = "Tool";
    record.originalPath = item;
    record.targetPath = target;
    record.migratedDate = ReferenceDate::now();
    AppManager::writeMigratedApps({record}, AppManager::getMigratedAppsFilePath(external->mountPoint()));

    auto back = runCorvane({"back", item, "--disk", external->mountPoint(), "--yes"});
    EXPECT_EQ(back.exitStatus, 1) << target;
    EXPECT_NE((back.standardOutput + back.standardError).find(localizedFormat("migration.safety.outside_disk", target)),
              std::string::npos)
        << back.standardOutput << back.standardError;
    int status = 0;
    EXPECT_EQ(waitpid(program.pid(), &status, WNOHANG), 0) << "the program running at " << target << " was ended";
    EXPECT_EQ(MigrationEntry::read(item, AT_FDCWD)->kind, MigrationEntry::Kind::symbolicLink);
    EXPECT_TRUE(MigrationEntry::read(outside + "/sleep", AT_FDCWD));
  }
}

}  // namespace
}  // namespace corvane
