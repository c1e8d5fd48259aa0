#include "catalogue/app_manager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "catalogue/catalogue_test_support.h"
#include "catalogue/migrated_apps_file.h"
#include "catalogue/migrated_apps_file_format.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "support/main_queue.h"

namespace corvane {
namespace {

class AppManagerTest : public ::testing::Test {
 protected:
  std::vector<MigratedApp> load() {
    manager_.loadMigratedApps(disk_.path());
    queue_.runPending();
    return manager_.migratedApps();
  }
  std::vector<MigratedApp> fileRecords() {
    return MigratedAppsFileFormat::decode(readFile(recordFilePath(disk_.path())));
  }
  static std::vector<std::string> names(const std::vector<MigratedApp>& apps) {
    std::vector<std::string> result;
    for (const auto& app : apps) result.push_back(app.appName);
    return result;
  }
  // A migrated folder: its copy on the disk and a link at its original place.
  MigratedApp migratedFolder(const std::string& name) {
    const std::string target = disk_.child("Directories/" + name);
    makeDirectories(target);
    const std::string original = internal_.child(name);
    EXPECT_EQ(::symlink(target.c_str(), original.c_str()), 0);
    return makeRecord(name, original, target);
  }

  TemporaryDirectory disk_;
  TemporaryDirectory internal_;
  TemporaryDirectory outside_;
  MainQueue queue_;
  AppManager manager_{queue_};
};

TEST_F(AppManagerTest, LoadingHidesRecordsWhoseOriginalPlaceHoldsARealObjectAndLeavesTheFileAlone) {
  const MigratedApp linked = migratedFolder("Linked");
  const MigratedApp absent = makeRecord("Absent", internal_.child("Absent"), disk_.child("Directories/Absent"));
  MigratedApp dangling = makeRecord("Dangling", internal_.child("Dangling"), disk_.child("Directories/Gone"));
  ASSERT_EQ(::symlink(dangling.targetPath.c_str(), dangling.originalPath.c_str()), 0);
  const MigratedApp movedBack =
      makeRecord("MovedBack", internal_.child("MovedBack"), disk_.child("Directories/MovedBack"));
  makeDirectories(movedBack.originalPath);
  writeRecordFile(disk_.path(), {linked, movedBack, absent, dangling});
  const std::string before = readFile(recordFilePath(disk_.path()));

  EXPECT_EQ(names(load()), (std::vector<std::string>{"Linked", "Absent", "Dangling"}));
  // Nothing needed reconciling, so the hidden record is still in the file.
  EXPECT_EQ(readFile(recordFilePath(disk_.path())), before);
}

TEST_F(AppManagerTest, LoadingCompletesBackupListsAndWritesThemBack) {
  MigratedApp folder = migratedFolder("Work");
  makeDirectories(disk_.child("Directories/Work_backup_20240101_120000"));
  writeRecordFile(disk_.path(), {folder});

  const auto loaded = load();
  ASSERT_EQ(loaded.size(), 1u);
  ASSERT_EQ(loaded[0].backupVersions.size(), 1u);
  EXPECT_EQ(loaded[0].backupVersions[0].backupPath, disk_.child("Directories/Work_backup_20240101_120000"));
  EXPECT_EQ(fileRecords(), loaded);
}

TEST_F(AppManagerTest, UnreadableCurrentFileFallsBackToTheLegacyFile) {
  const MigratedApp folder = migratedFolder("Photos");
  std::string missingKey = MigratedAppsFileFormat::encode({folder});
  missingKey.erase(missingKey.find("    \"rollbackScriptPath\" : \"\",\n"), 31);
  std::string applicationType = MigratedAppsFileFormat::encode({folder});
  applicationType.replace(applicationType.find("\"dir\""), 5, "\"application\"");
  for (const std::string& damaged :
       {missingKey, applicationType, std::string("[{\"id\":"), std::string("\xff\xfe[]")}) {
    SCOPED_TRACE(damaged.substr(0, 60));
    makeDirectories(disk_.child(".corvane"));
    writeFile(recordFilePath(disk_.path()), damaged);
    writeFile(disk_.child("migrated_apps.json"), MigratedAppsFileFormat::encode({folder}));
    EXPECT_EQ(load(), std::vector<MigratedApp>{folder});
    // The legacy records now stand in the current file.
    EXPECT_EQ(fileRecords(), std::vector<MigratedApp>{folder});
  }
}

TEST_F(AppManagerTest, WithoutAnyReadableFileTheDiskIsScannedAndTheDamagedFileKept) {
  makeDirectories(disk_.child("Directories/nowhere-on-this-machine"));
  makeDirectories(disk_.child(".corvane"));
  writeFile(recordFilePath(disk_.path()), "[ {\"truncated\" : ");
  writeFile(disk_.child("migrated_apps.json"), "not json");

  // Folders that only hold folders are never guessed to be items: a record for "/elsewhere/me"
  // would take both copies below it with it.
  writeFile(disk_.child("Directories/elsewhere/me/Old/notes.txt"), "old");
  writeFile(disk_.child("Directories/elsewhere/me/New/notes.txt"), "new");

  std::set<std::string> originals;
  for (const auto& record : load()) originals.insert(record.originalPath);
  EXPECT_EQ(originals, (std::set<std::string>{"/nowhere-on-this-machine", "/elsewhere/me/Old", "/elsewhere/me/New"}));
  EXPECT_TRUE(AppManager::loadRecordsTellingSource(disk_.path()).rebuiltByScan);
  EXPECT_EQ(readFile(recordFilePath(disk_.path())), "[ {\"truncated\" : ");
  EXPECT_EQ(readFile(disk_.child("migrated_apps.json")), "not json");
}

TEST_F(AppManagerTest, LinkedHiddenDirectoryIsNeitherReadNorWrittenThrough) {
  // A valid file outside the disk, reachable only through the link.
  const MigratedApp bait = migratedFolder("Bait");
  writeFile(outside_.child("migrated_apps.json"), MigratedAppsFileFormat::encode({bait}));
  ASSERT_EQ(::symlink(outside_.path().c_str(), disk_.child(".corvane").c_str()), 0);
  const auto outsideBefore = treeNames(outside_.path());
  const std::string baitBytes = readFile(outside_.child("migrated_apps.json"));

  // The disk's folders hold the Bait copy, so the scan finds it, with a fresh identity.
  const auto loaded = load();
  ASSERT_EQ(loaded.size(), 1u);
  EXPECT_NE(loaded[0].id, bait.id);
  EXPECT_FALSE(manager_.saveMigratedApp(makeRecord("New", "/x/New", disk_.child("Directories/New")), disk_.path(),
                                        std::nullopt));
  EXPECT_FALSE(manager_.removeMigratedApp(loaded[0], disk_.path()));
  EXPECT_FALSE(manager_.removeMigratedAppAndSaveToAllDisks(loaded[0], {disk_.path()}));
  EXPECT_EQ(treeNames(outside_.path()), outsideBefore);
  EXPECT_EQ(readFile(outside_.child("migrated_apps.json")), baitBytes);
}

TEST_F(AppManagerTest, LinkedRecordFileIsNotReadAndIsReplacedRatherThanWrittenThrough) {
  const MigratedApp bait = makeRecord("Bait", "/nowhere/Bait", "/nowhere/Bait");
  writeFile(outside_.child("victim.json"), MigratedAppsFileFormat::encode({bait}));
  const std::string victimBytes = readFile(outside_.child("victim.json"));
  makeDirectories(disk_.child(".corvane"));
  ASSERT_EQ(::symlink(outside_.child("victim.json").c_str(), recordFilePath(disk_.path()).c_str()), 0);

  EXPECT_TRUE(load().empty());
  const MigratedApp fresh = makeRecord("Fresh", "/nowhere/Fresh", disk_.child("Directories/Fresh"));
  EXPECT_TRUE(manager_.saveMigratedApp(fresh, disk_.path(), std::nullopt));
  struct stat status {};
  ASSERT_EQ(::lstat(recordFilePath(disk_.path()).c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(fileRecords(), std::vector<MigratedApp>{fresh});
  EXPECT_EQ(readFile(outside_.child("victim.json")), victimBytes);
  EXPECT_EQ(treeNames(outside_.path()), std::set<std::string>{"victim.json"});
}

TEST_F(AppManagerTest, OddObjectsInPlaceOfTheFileNeitherHangNorCrashTheLoader) {
  makeDirectories(disk_.child(".corvane"));
  const std::string file = recordFilePath(disk_.path());
  // A FIFO nobody writes to: opening it for reading would block without O_NONBLOCK.
  ASSERT_EQ(::mkfifo(file.c_str(), 0644), 0);
  EXPECT_TRUE(load().empty());
  ASSERT_EQ(::unlink(file.c_str()), 0);
  // A file beyond the size bound (sparse, so the test stays small).
  {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(MigratedAppsFileFormat::kMaximumFileSize) + 1), 0);
    ::close(fd);
  }
  EXPECT_TRUE(load().empty());
  ASSERT_EQ(::unlink(file.c_str()), 0);
  // A directory of that name is not read; a save keeps it under a dated name.
  makeDirectories(file + "/inside");
  EXPECT_TRUE(load().empty());
  EXPECT_TRUE(manager_.saveMigratedApp(makeRecord("A", "/nowhere/A", disk_.child("Directories/A")), disk_.path(),
                                       std::nullopt));
  EXPECT_EQ(MigratedAppsFile::read(file).size(), 1u);
  // The lock stays: a file that comes and goes could not be locked by two processes at once.
  const auto names = treeNames(disk_.child(".corvane"));
  EXPECT_EQ(std::count_if(names.begin(), names.end(),
                          [](const std::string& name) {
                            return name.rfind("migrated_apps.json.unreadable_", 0) == 0 && name.ends_with("/inside");
                          }),
            1)
      << ::testing::PrintToString(names);
}

TEST_F(AppManagerTest, AFileInPlaceOfTheHiddenDirectoryAMissingDiskRootOrNoDiskWritesNothing) {
  writeFile(disk_.child(".corvane"), "not a directory");
  EXPECT_FALSE(manager_.saveMigratedApp(makeRecord("A", "/nowhere/A", "/nowhere/A"), disk_.path(), std::nullopt));
  EXPECT_EQ(readFile(disk_.child(".corvane")), "not a directory");

  const std::string unmounted = outside_.child("Volumes/Gone");
  EXPECT_FALSE(manager_.saveMigratedApp(makeRecord("B", "/nowhere/B", "/nowhere/B"), unmounted, std::nullopt));
  EXPECT_TRUE(treeNames(outside_.path()).empty());
  // The in-memory list keeps both records all the same.
  EXPECT_EQ(manager_.migratedApps().size(), 2u);
  // Without a disk only the list changes.
  EXPECT_FALSE(manager_.saveMigratedApp(makeRecord("C", "/nowhere/C", "/nowhere/C"), std::nullopt, std::nullopt));
  EXPECT_EQ(manager_.migratedApps().size(), 3u);
  EXPECT_EQ(treeNames(disk_.path()), std::set<std::string>{".corvane"});
}

TEST_F(AppManagerTest, SavingTheSameOriginalPathUpdatesInPlaceKeepsTheIdentityAndAccumulatesBackups) {
  int notifications = 0;
  const Subscription counting = manager_.observe([&] { ++notifications; });
  MigratedApp first = makeRecord("Foo.app", "/Applications/Foo.app", disk_.child("Applications/Foo.app"),
                                 MigratedItemType::application);
  makeBundle(first.targetPath, "1.0", PropertyListForm::xml);
  const MigratedApp other = makeRecord("Other", "/nowhere/Other", disk_.child("Directories/Other"));
  EXPECT_TRUE(manager_.saveMigratedApp(first, disk_.path(), std::nullopt));
  EXPECT_TRUE(manager_.saveMigratedApp(other, disk_.path(), std::nullopt));

  const std::string olderCopy = disk_.child("Applications/Foo_backup_20240101_120000.app");
  makeBundle(olderCopy, "0.9", PropertyListForm::binary);
  MigratedApp second = makeRecord("Foo.app", "/Applications/Foo.app", disk_.child("Applications/Foo.app"),
                                  MigratedItemType::application);
  second.migratedDate = ReferenceDate::fromUnixSeconds(1720000000);
  EXPECT_TRUE(manager_.saveMigratedApp(second, disk_.path(), olderCopy));

  const auto& apps = manager_.migratedApps();
  ASSERT_EQ(apps.size(), 2u);
  EXPECT_EQ(apps[0].id, first.id);
  EXPECT_EQ(apps[0].migratedDate, second.migratedDate);
  ASSERT_EQ(apps[0].backupVersions.size(), 1u);
  EXPECT_EQ(apps[0].backupVersions[0].backupPath, olderCopy);
  EXPECT_TRUE(apps[0].backupVersions[0].exists);
  EXPECT_EQ(fileRecords(), apps);
  EXPECT_EQ(notifications, 3);
}

TEST_F(AppManagerTest, RemovalWritesTheRemainingListToEveryDiskAndReadsItBack) {
  const MigratedApp keep = makeRecord("Keep", "/nowhere/Keep", disk_.child("Directories/Keep"));
  const MigratedApp drop = makeRecord("Drop", "/nowhere/Drop", disk_.child("Directories/Drop"));
  ASSERT_TRUE(manager_.saveMigratedApp(keep, disk_.path(), std::nullopt));
  ASSERT_TRUE(manager_.saveMigratedApp(drop, disk_.path(), std::nullopt));

  EXPECT_TRUE(manager_.removeMigratedApp(drop, disk_.path()));
  EXPECT_EQ(fileRecords(), std::vector<MigratedApp>{keep});
  // Removing what is not there leaves the list and still rewrites the same file.
  EXPECT_TRUE(manager_.removeMigratedApp(drop, disk_.path()));
  EXPECT_EQ(manager_.migratedApps(), std::vector<MigratedApp>{keep});

  // Removal from all disks writes the same remaining list everywhere a disk is.
  TemporaryDirectory second;
  ASSERT_TRUE(manager_.saveMigratedApp(drop, disk_.path(), std::nullopt));
  EXPECT_FALSE(
      manager_.removeMigratedAppAndSaveToAllDisks(drop, {disk_.path(), outside_.child("missing"), second.path()}));
  EXPECT_EQ(fileRecords(), std::vector<MigratedApp>{keep});
  EXPECT_EQ(MigratedAppsFileFormat::decode(readFile(recordFilePath(second.path()))), std::vector<MigratedApp>{keep});
  EXPECT_TRUE(treeNames(outside_.path()).empty());
  EXPECT_FALSE(manager_.removeMigratedApp(keep, std::nullopt));
  EXPECT_TRUE(manager_.migratedApps().empty());
}

TEST_F(AppManagerTest, NoDiskMeansAnEmptyListAndPublishingOutlivesNoManager) {
  manager_.saveMigratedApp(makeRecord("A", "/nowhere/A", "/nowhere/A"), std::nullopt, std::nullopt);
  int notifications = 0;
  const Subscription counting = manager_.observe([&] { ++notifications; });
  manager_.loadMigratedApps(std::nullopt);
  EXPECT_EQ(manager_.migratedApps().size(), 1u);  // published through the queue, not at once
  queue_.runPending();
  EXPECT_TRUE(manager_.migratedApps().empty());
  EXPECT_EQ(notifications, 1);

  auto shortLived = std::make_unique<AppManager>(queue_);
  shortLived->loadMigratedApps(disk_.path());
  shortLived.reset();
  EXPECT_EQ(queue_.runPending(), 1u);
}

TEST_F(AppManagerTest, LinkTestFollowsTheRecordsTarget) {
  MigratedApp linked = migratedFolder("Docs");
  EXPECT_TRUE(AppManager::isAppSymlink(linked));
  MigratedApp relative = makeRecord("Rel", internal_.child("Rel"), disk_.child("Directories/Docs"));
  const std::string text = "../" + disk_.path().substr(disk_.path().rfind('/') + 1) + "/Directories/Docs";
  ASSERT_EQ(::symlink(text.c_str(), relative.originalPath.c_str()), 0);
  EXPECT_TRUE(AppManager::isAppSymlink(relative));
  linked.targetPath = disk_.child("Directories/Elsewhere");
  EXPECT_FALSE(AppManager::isAppSymlink(linked));
  makeDirectories(internal_.child("Real"));
  EXPECT_FALSE(AppManager::isAppSymlink(makeRecord("Real", internal_.child("Real"), disk_.child("Directories/Docs"))));
}

// External disks are often FAT or exFAT (through FUSE here): the record file must be created,
// replaced, read back and moved from its legacy place on each of them (the only legacy-move test).
class RecordFileVolumeTest : public ::testing::TestWithParam<VolumeKind> {};

TEST_P(RecordFileVolumeTest, RecordsSurviveSaveReplaceRemoveAndReloadOnTheVolume) {
  CORVANE_TEST_VOLUME(volume, GetParam());
  const std::string disk = volume->mountPoint();
  makeDirectories(volume->child("Directories/Keep"));
  makeDirectories(volume->child("Directories/Keep_backup_20240101_120000"));
  const MigratedApp keep = makeRecord("Keep", "/nowhere/Keep", volume->child("Directories/Keep"));
  const MigratedApp drop = makeRecord("Drop", "/nowhere/Drop", volume->child("Directories/Drop"));
  writeFile(volume->child("migrated_apps.json"), MigratedAppsFileFormat::encode({keep, drop}));

  MainQueue queue;
  AppManager manager(queue);
  manager.loadMigratedApps(disk);
  queue.runPending();
  ASSERT_EQ(manager.migratedApps().size(), 2u);
  EXPECT_EQ(manager.migratedApps()[0].backupVersions.size(), 1u);  // adopted beside the target
  EXPECT_TRUE(treeNames(disk).count(".corvane/migrated_apps.json"));
  EXPECT_FALSE(treeNames(disk).count("migrated_apps.json"));

  EXPECT_TRUE(manager.removeMigratedApp(drop, disk));
  EXPECT_TRUE(manager.saveMigratedApp(keep, disk, std::nullopt));  // replaces the existing file
  manager.loadMigratedApps(disk);
  queue.runPending();
  ASSERT_EQ(manager.migratedApps().size(), 1u);
  EXPECT_EQ(manager.migratedApps()[0].id, keep.id);
  // Only the record file is left in the hidden directory: no temporary files.
  std::set<std::string> hidden;
  for (const auto& name : treeNames(disk))
    if (name.rfind(".corvane/", 0) == 0) hidden.insert(name);
  EXPECT_EQ(hidden, (std::set<std::string>{".corvane/.lock", ".corvane/migrated_apps.json"}));
}

INSTANTIATE_TEST_SUITE_P(Volumes, RecordFileVolumeTest,
                         ::testing::Values(VolumeKind::ext4, VolumeKind::xfs, VolumeKind::tmpfs, VolumeKind::fat,
                                           VolumeKind::exfat),
                         [](const auto& info) { return std::string(volumeKindName(info.param)); });

}  // namespace
}  // namespace corvane
