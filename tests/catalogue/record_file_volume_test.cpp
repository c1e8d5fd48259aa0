#include <gtest/gtest.h>

#include "catalogue/app_manager.h"
#include "catalogue/catalogue_test_support.h"
#include "catalogue/migrated_apps_file_format.h"
#include "fixtures/sample_tree.h"
#include "fixtures/test_volume.h"
#include "support/main_queue.h"

namespace corvane {
namespace {

// External disks are often FAT or exFAT (through FUSE here): the record file must be created,
// replaced, read back and moved from its legacy place on each of them.
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
  EXPECT_EQ(hidden, std::set<std::string>{".corvane/migrated_apps.json"});
}

INSTANTIATE_TEST_SUITE_P(Volumes, RecordFileVolumeTest,
                         ::testing::Values(VolumeKind::ext4, VolumeKind::xfs, VolumeKind::tmpfs, VolumeKind::fat,
                                           VolumeKind::exfat),
                         [](const auto& info) { return std::string(volumeKindName(info.param)); });

}  // namespace
}  // namespace corvane
