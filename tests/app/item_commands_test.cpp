#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "catalogue/app_manager.h"
#include "engine/migration_entry.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/sample_tree.h"
#include "fixtures/test_volume.h"
#include "support/localization.h"

namespace corvane {
namespace {

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
  EXPECT_NE(again.standardError.find(localizedFormat("cli.item.not_found", "Notes")), std::string::npos) << again.standardError;

  // A version that does not exist names the versions there are and changes nothing.
  auto restore = runCorvane({"restore", "Drafts", "--version", "20000101_000000", "--disk", external->mountPoint()});
  EXPECT_EQ(restore.exitStatus, 1);
  EXPECT_EQ(MigrationEntry::read(other, AT_FDCWD)->kind, MigrationEntry::Kind::symbolicLink);

  // Uninstall deletes only after a confirmation: none without a terminal and without --yes.
  const std::string target = external->child("Directories" + other);
  auto refused = runCorvane({"uninstall", "Drafts", "--disk", external->mountPoint()}, {.standardInput = "y\n"});
  EXPECT_EQ(refused.exitStatus, 1);
  EXPECT_NE(refused.standardError.find(localized("cli.uninstall.no_terminal")), std::string::npos) << refused.standardError;
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
