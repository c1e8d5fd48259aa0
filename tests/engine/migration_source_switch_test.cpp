#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "engine/migration_file_safety.h"
#include "engine/migration_integrity_verifier.h"
#include "engine/migration_source_switch.h"
#include "engine/privileged_test_support.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"

namespace corvane {
namespace {

MigrationManifest scanned(const std::string& root) {
  return MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
}

std::vector<std::string> namesIn(const std::string& directory) {
  return [&] {
    std::vector<std::string> names;
    for (const auto& [path, entry] : scanned(directory)) {
      if (!path.empty() && path.find('/') == std::string::npos) names.push_back(path);
    }
    return names;
  }();
}

TEST(MigrationSourceSwitchTest, InstallLeavesALinkAndKeepsTheOriginalUnderATemporaryName) {
  CORVANE_TEST_VOLUME(internal, VolumeKind::ext4);
  CORVANE_TEST_VOLUME(external, VolumeKind::xfs);
  const std::string source = internal->child("Item.app");
  buildSampleTree(source);
  const auto before = scanned(source);
  const std::string target = external->child("Item.app");
  copyTree(source, target);

  bool hookRan = false;
  const std::string temporary = MigrationSourceSwitch::install(
      source, target,
      [&] {
        hookRan = true;
        // Nothing has been swapped yet when the last hook runs.
        EXPECT_EQ(MigrationEntry::read(source, AT_FDCWD)->kind, MigrationEntry::Kind::directory);
      },
      MigrationSwitchOperations::direct());
  EXPECT_TRUE(hookRan);
  EXPECT_EQ(temporary.rfind(source + ".corvane_backup_", 0), 0u);
  auto link = MigrationEntry::read(source, AT_FDCWD);
  ASSERT_EQ(link->kind, MigrationEntry::Kind::symbolicLink);
  EXPECT_EQ(*link->link, target);
  EXPECT_EQ(scanned(temporary).at("").identity(), before.at("").identity());
  EXPECT_EQ(readFile(source + "/Contents/Info.plist"), "<plist>sample</plist>\n") << "reads through the link";
}

TEST(MigrationSourceSwitchTest, AFileSystemThatCannotSwapLeavesEverythingInPlace) {
  CORVANE_TEST_VOLUME(fat, VolumeKind::fat);
  writeFile(fat->child("a.txt"), "first");
  writeFile(fat->child("b.txt"), "second");
  EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::exchange(fat->child("a.txt"), fat->child("b.txt")); }),
            "migration.preflight.atomic_unsupported");
  EXPECT_EQ(readFile(fat->child("a.txt")), "first");
  EXPECT_EQ(readFile(fat->child("b.txt")), "second");

  // The whole install on such a volume: the source stays and no temporary name is left. (FAT
  // cannot even hold the link, so the switch stops before the exchange is tried.)
  makeDirectories(fat->child("Item"));
  writeFile(fat->child("Item/data.txt"), "data");
  CORVANE_TEST_VOLUME(external, VolumeKind::ext4);
  makeDirectories(external->child("Item"));
  writeFile(external->child("Item/data.txt"), "data");
  EXPECT_NE(issueKeyOf([&] {
              try {
                MigrationSourceSwitch::install(fat->child("Item"), external->child("Item"), {},
                                               MigrationSwitchOperations::direct());
              } catch (const std::system_error&) {
                throw MigrationIssue("platform");
              }
            }),
            "");
  EXPECT_EQ(readFile(fat->child("Item/data.txt")), "data");
  EXPECT_EQ(namesIn(fat->mountPoint()), (std::vector<std::string>{"Item", "a.txt", "b.txt"}));
}

TEST(MigrationSourceSwitchTest, AFailedExchangeRemovesTheNewLinkAndLeavesTheSource) {
  TemporaryDirectory dir;
  makeDirectories(dir.child("Item"));
  writeFile(dir.child("Item/data.txt"), "data");
  makeDirectories(dir.child("copy/Item"));
  auto operations = MigrationSwitchOperations::direct();
  operations.exchange = [&](const std::string& first, const std::string&) {
    // What a volume without swap support answers.
    MigrationSourceSwitch::exchange(first, dir.child("copy/Item"));
  };
  EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::install(dir.child("Item"), dir.child("copy/Item"), {}, operations); }),
            "migration.preflight.atomic_unsupported");
  EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{"Item", "copy"}));
  EXPECT_EQ(readFile(dir.child("Item/data.txt")), "data");

  // A hook that refuses at the last moment has the same effect.
  EXPECT_EQ(issueKeyOf([&] {
              MigrationSourceSwitch::install(dir.child("Item"), dir.child("copy/Item"),
                                             [] { throw MigrationIssue("migration.preflight.runtime"); },
                                             MigrationSwitchOperations::direct());
            }),
            "migration.preflight.runtime");
  EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{"Item", "copy"}));
}

TEST(MigrationSourceSwitchTest, AnOriginalReplacedBeforeTheExchangeIsSwappedBack) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::btrfs);
  const std::string source = volume->child("Item");
  makeDirectories(source);
  writeFile(source + "/data.txt", "original");
  makeDirectories(volume->child("external/Item"));
  // Another directory of the same name is put in the item's place after it was read.
  auto replace = [&] {
    ASSERT_EQ(::rename(source.c_str(), volume->child("moved-away").c_str()), 0);
    makeDirectories(source);
    writeFile(source + "/data.txt", "impostor");
  };
  EXPECT_EQ(issueKeyOf([&] {
              MigrationSourceSwitch::install(source, volume->child("external/Item"), replace,
                                             MigrationSwitchOperations::direct());
            }),
            "error.migration_copy_mismatch");
  EXPECT_EQ(MigrationEntry::read(source, AT_FDCWD)->kind, MigrationEntry::Kind::directory);
  EXPECT_EQ(readFile(source + "/data.txt"), "impostor") << "the path holds again what it held";
  EXPECT_EQ(namesIn(volume->mountPoint()), (std::vector<std::string>{"Item", "external", "moved-away"}))
      << "no temporary name and no link left";
}

TEST(MigrationSourceSwitchTest, ALinkThatIsNotWhatWasAskedForIsRefusedBeforeTheSwap) {
  TemporaryDirectory dir;
  makeDirectories(dir.child("Item"));
  makeDirectories(dir.child("copy/Item"));
  auto operations = MigrationSwitchOperations::direct();
  operations.create = [](const std::string& link, const std::string&) { ASSERT_EQ(::symlink("/elsewhere", link.c_str()), 0); };
  EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::install(dir.child("Item"), dir.child("copy/Item"), {}, operations); }),
            "error.migration_copy_mismatch");
  EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{"Item", "copy"}));

  // A target of another kind, or a link as target, is refused before anything is made.
  writeFile(dir.child("copy/file"), "x");
  ASSERT_EQ(::symlink(dir.child("copy/Item").c_str(), dir.child("copy/link").c_str()), 0);
  for (const char* target : {"copy/file", "copy/link", "copy/missing"}) {
    EXPECT_EQ(issueKeyOf([&] {
                MigrationSourceSwitch::install(dir.child("Item"), dir.child(target), {}, MigrationSwitchOperations::direct());
              }),
              "error.migration_copy_mismatch")
        << target;
  }
  EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{"Item", "copy"}));
}

TEST(MigrationSourceSwitchTest, ExchangeNeedsOneDirectory) {
  TemporaryDirectory dir;
  makeDirectories(dir.child("one"));
  writeFile(dir.child("one/a"), "a");
  writeFile(dir.child("b"), "b");
  EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::exchange(dir.child("one/a"), dir.child("b")); }),
            "migration.preflight.atomic_unsupported");
  EXPECT_EQ(readFile(dir.child("one/a")), "a");
  writeFile(dir.child("c"), "c");
  MigrationSourceSwitch::exchange(dir.child("b"), dir.child("c"));
  EXPECT_EQ(readFile(dir.child("b")), "c");
  EXPECT_EQ(readFile(dir.child("c")), "b");
}

TEST(MigrationSourceSwitchTest, PromotionNeverOverwrites) {
  TemporaryDirectory dir;
  makeDirectories(dir.child("staging/payload"));
  writeFile(dir.child("staging/payload/data"), "copy");
  makeDirectories(dir.child("occupied"));
  EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::promote(dir.child("staging/payload"), dir.child("occupied")); }),
            "migration.preflight.target_exists");
  ASSERT_EQ(::symlink("/nowhere", dir.child("dangling").c_str()), 0);
  EXPECT_EQ(issueKeyOf([&] { MigrationSourceSwitch::promote(dir.child("staging/payload"), dir.child("dangling")); }),
            "migration.preflight.target_exists");
  EXPECT_EQ(readFile(dir.child("staging/payload/data")), "copy");
  MigrationSourceSwitch::promote(dir.child("staging/payload"), dir.child("final"));
  EXPECT_EQ(readFile(dir.child("final/data")), "copy");
  EXPECT_FALSE(MigrationEntry::read(dir.child("staging/payload"), AT_FDCWD));
}

TEST(MigrationFileSafetyTest, OnlyTheInstalledLinkMayBeReplacedOnTheWayBack) {
  CORVANE_TEST_VOLUME(external, VolumeKind::ext4);
  CORVANE_TEST_VOLUME(otherDisk, VolumeKind::tmpfs);
  TemporaryDirectory dir;
  makeDirectories(external->child("Item"));
  makeDirectories(otherDisk->child("Item"));
  ASSERT_EQ(::symlink(external->child("Item").c_str(), dir.child("Item").c_str()), 0);

  const MigrationEntry link = MigrationFileSafety::requireRestoreLink(dir.child("Item"), external->child("Item"));
  EXPECT_EQ(*link.link, external->child("Item"));
  // Through another link to the same place is the same place.
  ASSERT_EQ(::symlink(external->mountPoint().c_str(), dir.child("disk").c_str()), 0);
  EXPECT_NO_THROW(MigrationFileSafety::requireRestoreLink(dir.child("Item"), dir.child("disk/Item"), link));

  EXPECT_EQ(issueKeyOf([&] { MigrationFileSafety::requireRestoreLink(dir.child("Item"), otherDisk->child("Item")); }),
            "migration.preflight.restore_wrong_target");
  makeDirectories(dir.child("Real"));
  EXPECT_EQ(issueKeyOf([&] { MigrationFileSafety::requireRestoreLink(dir.child("Real"), external->child("Item")); }),
            "migration.preflight.restore_not_link");
  EXPECT_EQ(issueKeyOf([&] { MigrationFileSafety::requireRestoreLink(dir.child("Gone"), external->child("Item")); }),
            "migration.preflight.restore_not_link");

  // The same text in a new link is not the link that was installed.
  ASSERT_EQ(::symlink(external->child("Item").c_str(), dir.child("Item.new").c_str()), 0);
  ASSERT_EQ(::rename(dir.child("Item.new").c_str(), dir.child("Item").c_str()), 0);
  EXPECT_EQ(issueKeyOf([&] { MigrationFileSafety::requireRestoreLink(dir.child("Item"), external->child("Item"), link); }),
            "error.migration_restore_conflict");
}

}  // namespace
}  // namespace corvane
