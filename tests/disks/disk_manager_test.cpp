#include "disks/disk_manager.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "catalogue/migrated_apps_file.h"
#include "engine/manifest/migration_entry.h"
#include "fixtures/loop_disk.h"
#include "fixtures/shell_administrator_runner.h"
#include "fixtures/temporary_directory.h"
#include "platform/volume_description.h"

namespace corvane {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  if (DIR* listing = opendir(directory.c_str())) {
    while (dirent* entry = readdir(listing))
      if (std::string(entry->d_name) != "." && std::string(entry->d_name) != "..") names.push_back(entry->d_name);
    closedir(listing);
  }
  return names;
}

bool holdsProbe(const std::string& volume) {
  for (const auto& name : namesIn(volume))
    if (name.starts_with(".corvane_test_") || name.starts_with(".corvane_permission_test_")) return true;
  return false;
}

void writeRecords(const std::string& disk, const std::vector<std::string>& originalPaths) {
  std::vector<MigratedApp> records;
  for (const auto& originalPath : originalPaths) {
    MigratedApp record;
    record.id = "00000000-0000-4000-8000-00000000000" + std::to_string(records.size());
    record.appName = "Item";
    record.originalPath = originalPath;
    record.targetPath = disk + "/Directories/Item" + std::to_string(records.size());
    records.push_back(record);
  }
  MigratedAppsFile::prepareDirectory(disk);
  MigratedAppsFile::write(records, MigratedAppsFile::currentPath(disk));
}

// Disks mounted below a temporary volumes root, a temporary file table and a runner that does
// what the administrator dialog would.
class DiskManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!runningAsRoot()) GTEST_SKIP() << "mounting test disks needs root";
    fstab_ = std::make_unique<FstabManager>(fstabConfiguration());
  }

  FstabManager::Configuration fstabConfiguration() {
    FstabManager::Configuration configuration;
    configuration.fstabPath = work_.child("fstab");
    configuration.volumesRoots = {root()};
    configuration.administratorRunner = runner_;
    configuration.isSIPEnabled = [] { return false; };
    configuration.describeVolume = [](const std::string& path) { return platform::describeVolume(path); };
    return configuration;
  }

  DiskManager::Configuration managerConfiguration(bool watch) {
    DiskManager::Configuration configuration;
    configuration.volumesRoots = VolumesRoots({root()});
    configuration.listVolumes = [] { return platform::mountedVolumes(); };
    configuration.watchVolumes = watch;
    configuration.mounter.udisksctl = "-";
    configuration.mounter.administratorRunner = runner_;
    configuration.pollingInterval = 5ms;
    return configuration;
  }

  std::unique_ptr<DiskManager> makeManager(bool watch = false) {
    return std::make_unique<DiskManager>(queue_, *fstab_, managerConfiguration(watch));
  }

  std::string root() const { return work_.child("Volumes"); }
  std::string at(const std::string& name) const { return root() + "/" + name; }

  bool settle(const std::function<bool()>& condition) { return queue_.runUntil(condition, 10s); }

  TemporaryDirectory work_;
  std::shared_ptr<ShellAdministratorRunner> runner_ = std::make_shared<ShellAdministratorRunner>();
  MainQueue queue_;
  std::unique_ptr<FstabManager> fstab_;
};

TEST_F(DiskManagerTest, DisksComingAndGoingAreSeenAndTheDestinationFollowsTheRules) {
  mkdir(root().c_str(), 0755);
  CORVANE_LOOP_DISK(first, "First");
  CORVANE_LOOP_DISK(readOnly, "ReadOnly");
  CORVANE_LOOP_DISK(second, "Second");
  auto manager = makeManager(/*watch=*/true);
  EXPECT_TRUE(manager->externalDisks().empty());
  EXPECT_FALSE(manager->destinationPath());

  first->mount(at("First"));
  ASSERT_TRUE(settle([&] { return manager->externalDisks() == std::vector<std::string>{at("First")}; }));
  EXPECT_FALSE(manager->destinationPath()) << "a disk that appears is not chosen by itself";

  // A read-only disk is never listed; the disk mounted after it shows that it was looked at.
  readOnly->mount(at("ReadOnly"), LoopDisk::Access::readOnly);
  second->mount(at("Second"));
  ASSERT_TRUE(settle([&] { return manager->externalDisks().size() == 2; }));
  EXPECT_EQ(manager->externalDisks(), (std::vector<std::string>{at("First"), at("Second")}));

  // The rescan lists each disk once and picks the first; no probe is left anywhere.
  manager->detectExternalDisks();
  EXPECT_EQ(manager->externalDisks(), (std::vector<std::string>{at("First"), at("Second")}));
  EXPECT_EQ(manager->destinationPath(), at("First"));
  for (const auto& disk : {at("First"), at("ReadOnly"), at("Second")}) EXPECT_FALSE(holdsProbe(disk)) << disk;
  EXPECT_FALSE(manager->accessProblem());

  // Detaching the destination clears it; the next rescan picks the disk that is left.
  first->unmount();
  ASSERT_TRUE(settle([&] { return !manager->destinationPath(); }));
  EXPECT_EQ(manager->externalDisks(), std::vector<std::string>{at("Second")});
  manager->detectExternalDisks();
  EXPECT_EQ(manager->destinationPath(), at("Second"));

  // After the manager is gone nothing arrives any more.
  manager.reset();
  first->mount(at("First"));
  queue_.runUntil([] { return false; }, 300ms);
}

TEST_F(DiskManagerTest, ADriftedDiskIsARenameOrAGhostCaseAndTheRepairMountsItWhereItBelongs) {
  CORVANE_LOOP_DISK(disk, "Backup");
  mkdir(root().c_str(), 0755);
  disk->mount(at("Backup1"));
  writeRecords(at("Backup1"), {at("Backup") + "/Apps/Tool", at("Backup") + "/Work", "/home/me/Notes"});

  auto manager = makeManager();
  ASSERT_EQ(manager->renamedDisks().size(), 1u) << "nothing at the expected path";
  EXPECT_EQ(manager->renamedDisks()[0].currentPath, at("Backup1"));
  EXPECT_EQ(manager->renamedDisks()[0].expectedPath, at("Backup"));
  EXPECT_TRUE(manager->ghostPaths().empty());

  mkdir(at("Backup").c_str(), 0755);
  manager->checkForDriftedDisks();
  EXPECT_EQ(manager->renamedDisks().size(), 1u) << "an empty folder is no ghost";

  std::ofstream(at("Backup") + "/left behind.txt") << "stale";
  manager->checkForDriftedDisks();
  EXPECT_TRUE(manager->renamedDisks().empty());
  ASSERT_EQ(manager->ghostPaths(), std::vector<std::string>{at("Backup")});
  EXPECT_EQ(manager->driftDisksMap().at(at("Backup")), disk->device());

  // Refused before the disk is touched: not the folder the user was shown.
  auto shown = fstab_->describeGhostDirectory(at("Backup"));
  ASSERT_TRUE(shown);
  EXPECT_EQ(shown->entryCount, 1u);
  auto stale = *shown;
  stale.inode += 1;
  std::optional<bool> refused;
  manager->fixGhostDirectory(
      at("Backup"), [&](bool success, std::optional<std::string>) { refused = success; }, stale);
  ASSERT_TRUE(settle([&] { return refused.has_value(); }));
  EXPECT_FALSE(*refused);
  EXPECT_TRUE(platform::isMountPoint(at("Backup1")));
  EXPECT_TRUE(runner_->commands.empty());

  std::optional<std::pair<bool, std::optional<std::string>>> repaired;
  manager->fixGhostDirectory(
      at("Backup"), [&](bool success, std::optional<std::string> message) { repaired.emplace(success, message); },
      shown);
  ASSERT_TRUE(settle([&] { return repaired.has_value(); }));
  EXPECT_TRUE(repaired->first);
  EXPECT_FALSE(repaired->second) << *repaired->second;
  EXPECT_TRUE(platform::isMountPoint(at("Backup")));
  EXPECT_FALSE(platform::isMountPoint(at("Backup1")));
  EXPECT_FALSE(MigrationEntry::read(at("Backup") + "/left behind.txt", AT_FDCWD)) << "the ghost is gone";
  EXPECT_TRUE(MigrationEntry::read(at("Backup") + "/.corvane", AT_FDCWD)) << "the disk is there";
  EXPECT_TRUE(manager->ghostPaths().empty());
  EXPECT_TRUE(manager->renamedDisks().empty());
  EXPECT_EQ(manager->externalDisks(), std::vector<std::string>{at("Backup")});
}

TEST_F(DiskManagerTest, ProtectionIsAskedLiveAtTheGateAndPollingStopsOnceItHolds) {
  CORVANE_LOOP_DISK(disk, "Safe");
  mkdir(root().c_str(), 0755);
  disk->mount(at("Safe"));
  auto manager = makeManager();
  ASSERT_EQ(manager->destinationPath(), at("Safe"));

  EXPECT_EQ(manager->protectionGate(), ProtectionGate::suggest);
  EXPECT_TRUE(manager->showProtectionSuggestion());

  // Without protection the polling gives up after its ticks.
  manager->startProtectionPolling();
  ASSERT_TRUE(settle([&] { return !manager->isPolling(); }));
  EXPECT_EQ(manager->pollingCount(), 60);
  EXPECT_FALSE(manager->isCurrentDiskProtected());

  // The user ran the command by hand: the first tick that finds the entry ends the polling.
  const auto uuid = fstab_->getVolumeUUID(at("Safe"));
  ASSERT_TRUE(uuid);
  std::ofstream(work_.child("fstab")) << "# by hand\nUUID=" << *uuid << " " << at("Safe") << " ext4 rw,nofail\n";
  manager->startProtectionPolling();
  ASSERT_TRUE(settle([&] { return !manager->isPolling(); }));
  EXPECT_TRUE(manager->isCurrentDiskProtected());
  EXPECT_LT(manager->pollingCount(), 60);
  EXPECT_EQ(manager->protectionGate(), ProtectionGate::start);

  // Enabling through the manager writes the entry through the administrator runner.
  std::ofstream(work_.child("fstab")) << "";
  std::optional<bool> enabled;
  manager->enableDiskProtection([&](bool success, std::optional<std::string>) { enabled = success; });
  ASSERT_TRUE(settle([&] { return enabled.has_value(); }));
  EXPECT_TRUE(*enabled);
  EXPECT_TRUE(manager->isCurrentDiskProtected());
  EXPECT_TRUE(fstab_->isDiskProtected(at("Safe")));

  // Skipping holds for the rest of the run, and without a destination nothing starts.
  std::ofstream(work_.child("fstab")) << "";
  manager->skipProtectionForSession();
  EXPECT_EQ(manager->protectionGate(), ProtectionGate::start);
  manager->setDestinationPath(std::nullopt);
  EXPECT_EQ(manager->protectionGate(), ProtectionGate::noDestination);
}

}  // namespace
}  // namespace corvane
