#include "engine/switch/migration_source_switch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "engine/item_test_support.h"
#include "engine/switch/migration_file_safety.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"

namespace corvane {
namespace {

using Kind = MigrationEntry::Kind;
const auto direct = MigrationSwitchOperations::direct;

// On a file system without the swap the exchange refuses and leaves both objects as they were;
// a whole install from there (FAT cannot even hold the link) leaves the source and no temporary name.
TEST(MigrationSourceSwitchTest, AFileSystemThatCannotSwapLeavesEverythingInPlace) {
  CORVANE_TEST_VOLUME(fat, VolumeKind::fat);
  writeFile(fat->child("a.txt"), "first");
  writeFile(fat->child("b.txt"), "second");
  EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::exchange(fat->child("a.txt"), fat->child("b.txt")); }),
            "migration.preflight.atomic_unsupported");
  EXPECT_EQ(readFile(fat->child("a.txt")), "first");
  EXPECT_EQ(readFile(fat->child("b.txt")), "second");
  TemporaryDirectory dir;
  writeFile(fat->child("Item/data.txt"), "data");
  writeFile(dir.child("external/Item/data.txt"), "data");
  EXPECT_ANY_THROW(MigrationSourceSwitch::install(fat->child("Item"), dir.child("external/Item"), {}, direct()));
  EXPECT_EQ(readFile(fat->child("Item/data.txt")), "data");
  EXPECT_EQ(namesIn(fat->mountPoint()), (std::vector<std::string>{"Item", "a.txt", "b.txt"}));
}

// A failing swap, a refusing last hook, a wrong link or a target that is no directory leave the
// source alone with nothing new beside it; a promotion never overwrites.
TEST(MigrationSourceSwitchTest, AnyRefusalBeforeTheSwapLeavesOnlyTheSourceAndPromotionNeverOverwrites) {
  TemporaryDirectory dir;
  writeFile(dir.child("Item/data.txt"), "data");
  makeDirectories(dir.child("copy/Item"));
  const std::string source = dir.child("Item"), target = dir.child("copy/Item");
  auto failingSwap = direct();
  failingSwap.exchange = [&](const std::string& first, const std::string&) {
    MigrationSourceSwitch::exchange(first, target);  // across directories: refused as without the swap
  };
  auto wrongLink = direct();
  wrongLink.create = [](const std::string& link, const std::string&) {
    ASSERT_EQ(::symlink("/elsewhere", link.c_str()), 0);
  };
  const std::function<void()> refusingHook = [] { throw MigrationIssue("migration.preflight.runtime"); };
  EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::install(source, target, {}, failingSwap); }),
            "migration.preflight.atomic_unsupported");
  EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::install(source, target, refusingHook, direct()); }),
            "migration.preflight.runtime");
  EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::install(source, target, {}, wrongLink); }),
            "error.migration_copy_mismatch");
  writeFile(dir.child("copy/file"), "x");
  ASSERT_EQ(::symlink(target.c_str(), dir.child("copy/link").c_str()), 0);
  for (const char* other : {"copy/file", "copy/link", "copy/missing"}) {
    EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::install(source, dir.child(other), {}, direct()); }),
              "error.migration_copy_mismatch")
        << other;
  }
  EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{"Item", "copy"}));
  EXPECT_EQ(readFile(dir.child("Item/data.txt")), "data");
  // A staged copy is promoted only to a free name.
  writeFile(dir.child("staging/payload/data"), "copy");
  ASSERT_EQ(::symlink("/nowhere", dir.child("dangling").c_str()), 0);
  for (const char* taken : {"Item", "dangling"}) {
    EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::promote(dir.child("staging/payload"), dir.child(taken)); }),
              "migration.preflight.target_exists")
        << taken;
  }
  EXPECT_EQ(readFile(dir.child("Item/data.txt")), "data");
  MigrationSourceSwitch::promote(dir.child("staging/payload"), dir.child("final"));
  EXPECT_EQ(readFile(dir.child("final/data")), "copy");
  EXPECT_FALSE(entryAt(dir.child("staging/payload")));
}

TEST(MigrationSourceSwitchTest, InstallKeepsTheOriginalUnderATemporaryNameAndSwapsBackAReplacedOne) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::btrfs);
  const std::string source = volume->child("Item");
  writeFile(source + "/data.txt", "original");
  makeDirectories(volume->child("external/Item"));
  // An impostor put in the item's place after it was read gets its place back; nothing is left over.
  auto replace = [&] {
    ASSERT_EQ(::rename(source.c_str(), volume->child("moved-away").c_str()), 0);
    writeFile(source + "/data.txt", "impostor");
  };
  const std::string target = volume->child("external/Item");
  EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::install(source, target, replace, direct()); }),
            "error.migration_copy_mismatch");
  EXPECT_EQ(entryAt(source)->kind, Kind::directory);
  EXPECT_EQ(readFile(source + "/data.txt"), "impostor");
  EXPECT_EQ(namesIn(volume->mountPoint()), (std::vector<std::string>{"Item", "external", "moved-away"}));

  // Undisturbed, the item is exchanged for a link, its last hook running before anything moved.
  const auto before = *entryAt(source);
  bool hookRan = false;
  auto lastHook = [&] {
    hookRan = true;
    EXPECT_EQ(entryAt(source)->kind, Kind::directory) << "nothing is swapped before the last hook";
  };
  const std::string temporary = MigrationSourceSwitch::install(source, target, lastHook, direct());
  EXPECT_TRUE(hookRan);
  EXPECT_EQ(temporary.rfind(source + ".corvane_backup_", 0), 0u);
  ASSERT_EQ(entryAt(source)->kind, Kind::symbolicLink);
  EXPECT_EQ(*entryAt(source)->link, target);
  EXPECT_EQ(entryAt(temporary)->identity(), before.identity());
}

TEST(MigrationFileSafetyTest, OnlyTheInstalledLinkMayBeReplacedOnTheWayBack) {
  TemporaryDirectory dir;
  const std::string copy = dir.child("disk/Item");
  makeDirectories(copy);
  makeDirectories(dir.child("other/Item"));
  ASSERT_EQ(::symlink(copy.c_str(), dir.child("Item").c_str()), 0);
  auto keyFor = [&](const std::string& at, const std::string& target, std::optional<MigrationEntry> expected = {}) {
    return issueKeyOf([&] { MigrationFileSafety::requireRestoreLink(dir.child(at), target, expected); });
  };
  const MigrationEntry link = MigrationFileSafety::requireRestoreLink(dir.child("Item"), copy);
  EXPECT_EQ(*link.link, copy);
  // Through another link to the same place is the same place.
  ASSERT_EQ(::symlink(dir.child("disk").c_str(), dir.child("alias").c_str()), 0);
  EXPECT_EQ(keyFor("Item", dir.child("alias/Item"), link), "");
  EXPECT_EQ(keyFor("Item", dir.child("other/Item")), "migration.preflight.restore_wrong_target");
  makeDirectories(dir.child("Real"));
  EXPECT_EQ(keyFor("Real", copy), "migration.preflight.restore_not_link");
  EXPECT_EQ(keyFor("Gone", copy), "migration.preflight.restore_not_link");
  // The same text in a new link is not the link that was installed.
  ASSERT_EQ(::symlink(copy.c_str(), dir.child("Item.new").c_str()), 0);
  ASSERT_EQ(::rename(dir.child("Item.new").c_str(), dir.child("Item").c_str()), 0);
  EXPECT_EQ(keyFor("Item", copy, link), "error.migration_restore_conflict");
}

}  // namespace
}  // namespace corvane
