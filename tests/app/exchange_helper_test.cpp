#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "engine/manifest/migration_entry.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"

namespace corvane {
namespace {

std::string id(const std::string& path) {
  auto entry = MigrationEntry::read(path, AT_FDCWD);
  return std::to_string(entry->device) + ":" + std::to_string(entry->inode);
}

nlohmann::json report(const CorvaneRun& run) { return nlohmann::json::parse(run.standardOutput); }

TEST(ExchangeHelperTest, SwapsOnlyWhenAllThreeIdentitiesHoldAndMakesOrRemovesOnlyLinks) {
  TemporaryDirectory dir;
  writeFile(dir.child("a"), "first");
  writeFile(dir.child("b"), "second");
  const std::vector<std::string> arguments = {"--corvane-exchange", "--checked",    dir.child("a"),
                                              dir.child("b"),       id(dir.path()), id(dir.child("a")),
                                              id(dir.child("b"))};
  auto swapped = runCorvane(arguments);
  EXPECT_EQ(swapped.exitStatus, 0) << swapped.standardOutput << swapped.standardError;
  EXPECT_EQ(report(swapped)["result"], "exchanged");
  EXPECT_EQ(readFile(dir.child("a")), "second");

  // The same command again: "a" now names the other file.
  auto refused = runCorvane(arguments);
  EXPECT_EQ(refused.exitStatus, 65);
  EXPECT_EQ(report(refused)["result"], "identity_changed");
  EXPECT_EQ(report(refused)["path"], dir.child("a"));
  EXPECT_EQ(readFile(dir.child("a")), "second");

  // A rehearsal swaps twice; failures and bad requests are reported.
  ASSERT_EQ(::unlink(dir.child("b").c_str()), 0);
  makeDirectories(dir.child("b"));
  ASSERT_EQ(::symlink("/somewhere", dir.child("link").c_str()), 0);
  auto rehearsed = runCorvane({"--corvane-exchange", "--rehearse", dir.child("b"), dir.child("link")});
  EXPECT_EQ(rehearsed.exitStatus, 0);
  EXPECT_EQ(report(rehearsed)["result"], "rehearsed");
  EXPECT_EQ(MigrationEntry::read(dir.child("b"), AT_FDCWD)->kind, MigrationEntry::Kind::directory);

  auto missing = runCorvane({"--corvane-exchange", "--rehearse", dir.child("b"), dir.child("absent")});
  EXPECT_EQ(missing.exitStatus, 66);
  EXPECT_EQ(report(missing)["errno"], ENOENT);

  for (const auto& bad :
       std::vector<std::vector<std::string>>{{"--corvane-exchange"},
                                             {"--corvane-exchange", "--checked", "/a", "/b", "1:2", "3:x", "5:6"},
                                             {"--corvane-file-operation", "unknownSelector", "/a"}}) {
    auto usage = runCorvane(bad);
    EXPECT_EQ(usage.exitStatus, 64);
    EXPECT_EQ(report(usage)["result"], "usage");
  }

  // File operations make and remove only links.
  auto made = runCorvane({"--corvane-file-operation", "createSymbolicLinkAtPathWithDestinationPathError",
                          dir.child("made"), "/target path"});
  EXPECT_EQ(made.exitStatus, 0);
  EXPECT_EQ(*MigrationEntry::read(dir.child("made"), AT_FDCWD)->link, "/target path");
  makeDirectories(dir.child("directory/child"));
  EXPECT_EQ(runCorvane({"--corvane-file-operation", "removeItemAtPathError", dir.child("directory")}).exitStatus, 66);
  EXPECT_TRUE(MigrationEntry::read(dir.child("directory/child"), AT_FDCWD));
  EXPECT_EQ(runCorvane({"--corvane-file-operation", "removeItemAtPathError", dir.child("made")}).exitStatus, 0);
  EXPECT_FALSE(MigrationEntry::read(dir.child("made"), AT_FDCWD));
}

TEST(ExchangeHelperTest, AVolumeWithoutSwapIsReportedAndLeftAlone) {
  CORVANE_TEST_VOLUME(fat, VolumeKind::fat);
  writeFile(fat->child("a"), "first");
  writeFile(fat->child("b"), "second");
  auto run = runCorvane({"--corvane-exchange", "--checked", fat->child("a"), fat->child("b"), id(fat->mountPoint()),
                         id(fat->child("a")), id(fat->child("b"))});
  EXPECT_EQ(run.exitStatus, 66);
  EXPECT_EQ(report(run)["result"], "failed");
  EXPECT_EQ(readFile(fat->child("a")), "first");
}

}  // namespace
}  // namespace corvane
