#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "engine/migration_integrity_verifier.h"
#include "engine/migration_issue.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/file_system.h"

namespace corvane {
namespace {

MigrationManifest scan(const std::string& root, RuntimeEntries runtime = RuntimeEntries::allow,
                       RemovableCheck removable = RemovableCheck::skip) {
  return MigrationIntegrityVerifier::snapshot(root, runtime, ReadableCheck::check, removable);
}

std::string issueKey(const std::function<void()>& action) {
  try {
    action();
  } catch (const MigrationIssue& issue) {
    return issue.key();
  }
  return "";
}

TEST(SnapshotTest, RecordsEveryObjectOnceWithoutFollowingLinks) {
  TemporaryDirectory dir;
  const std::string root = dir.child("Sample.app");
  writeFile(dir.child("outside.txt"), "outside\n");
  buildSampleTree(root, {.fifo = true, .staleSocket = true, .sparseFile = true});
  std::vector<std::string> visited;
  auto manifest = MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::allow, ReadableCheck::check,
                                                       RemovableCheck::check,
                                                       [&](const std::string& path) { visited.push_back(path); });
  // Parents are recorded before their children and every path exactly once.
  ASSERT_FALSE(visited.empty());
  EXPECT_EQ(visited.front(), "");
  EXPECT_EQ(std::set<std::string>(visited.begin(), visited.end()).size(), visited.size());
  EXPECT_EQ(visited.size(), manifest.size());
  for (std::size_t i = 1; i < visited.size(); ++i) {
    auto slash = visited[i].rfind('/');
    const std::string parent = slash == std::string::npos ? "" : visited[i].substr(0, slash);
    auto parentAt = std::find(visited.begin(), visited.end(), parent);
    EXPECT_LT(parentAt - visited.begin(), static_cast<long>(i)) << visited[i];
  }

  EXPECT_EQ(manifest.at("").kind, MigrationEntry::Kind::directory);
  EXPECT_EQ(manifest.at("Contents/Resources/deep/climbs-out").kind, MigrationEntry::Kind::symbolicLink);
  EXPECT_EQ(manifest.at("Contents/Resources/deep/climbs-out").link, "../../../../outside.txt");
  EXPECT_EQ(manifest.at("Contents/absolute-link").link, "/etc/hostname");
  EXPECT_EQ(manifest.count("Contents/absolute-link/x"), 0u);
  EXPECT_EQ(manifest.at("Contents/pipe").kind, MigrationEntry::Kind::fifo);
  EXPECT_EQ(manifest.at("Contents/stale.sock").kind, MigrationEntry::Kind::socket);
  EXPECT_EQ(manifest.at("Contents/sparse.bin").size, (8 << 20) + 4);
  EXPECT_EQ(manifest.at("Contents/Resources/deep/deeper/private.txt").mode, 0600);
  // Hard links appear once per path, with one identity.
  EXPECT_EQ(manifest.at("Contents/hardlink.txt").identity(), manifest.at("Contents/Resources/deep/file3.txt").identity());
  EXPECT_NE(manifest.at("Contents/Resources/deep/file4.txt").identity(), manifest.at("Contents/Resources/deep/file3.txt").identity());
}

TEST(SnapshotTest, RuntimeEntriesAreRefusedUnlessAllowed) {
  TemporaryDirectory dir;
  buildSampleTree(dir.child("a"), {.fifo = true});
  EXPECT_EQ(issueKey([&] { scan(dir.child("a"), RuntimeEntries::refuse); }), "error.migration_special_file");
  TemporaryDirectory other;
  buildSampleTree(other.child("b"), {.staleSocket = true});
  EXPECT_EQ(issueKey([&] { scan(other.child("b"), RuntimeEntries::refuse); }), "error.migration_special_file");
  EXPECT_NO_THROW(scan(other.child("b"), RuntimeEntries::allow));
}

TEST(SnapshotTest, VanishedRootIsASourceChange) {
  TemporaryDirectory dir;
  try {
    scan(dir.child("gone"));
    FAIL();
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.key(), "error.migration_source_changed");
    EXPECT_EQ(issue.detail(), dir.child("gone"));
  }
}

TEST(SnapshotTest, ImmutableEntryFailsTheRemovableCheckWithItsPath) {
  TemporaryDirectory dir;
  const std::string root = dir.child("item");
  try {
    buildSampleTree(root, {.immutableFile = true});
  } catch (const std::exception& unsupported) {
    GTEST_SKIP() << "this file system cannot mark files immutable: " << unsupported.what();
  }
  try {
    scan(root, RuntimeEntries::allow, RemovableCheck::check);
    FAIL();
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.key(), "migration.preflight.locked");
    EXPECT_EQ(issue.detail(), root + "/Contents/locked.txt");
  }
  // Without the removable check the same tree scans, and the flag is in the manifest.
  auto manifest = scan(root);
  EXPECT_EQ(manifest.at("Contents/locked.txt").flags & platform::kLockedFlagsMask, platform::kSystemImmutable);
}

TEST(SnapshotTest, ReadOnlyVolumeMakesItemsNotRemovable) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::tmpfs);
  buildSampleTree(volume->child("item"));
  ASSERT_EQ(system(("mount -o remount,ro " + volume->mountPoint()).c_str()), 0);
  EXPECT_EQ(issueKey([&] { scan(volume->child("item"), RuntimeEntries::allow, RemovableCheck::check); }),
            "migration.preflight.not_removable");
  EXPECT_NO_THROW(scan(volume->child("item")));
  ASSERT_EQ(system(("mount -o remount,rw " + volume->mountPoint()).c_str()), 0);
}

class RequireUnchangedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = dir_.child("item");
    writeFile(dir_.child("outside.txt"), "x");
    buildSampleTree(root_, {.fifo = true});
    manifest_ = scan(root_);
  }
  std::string changeKey(const std::function<void()>& change) {
    change();
    return issueKey([&] { MigrationIntegrityVerifier::requireUnchanged(root_, manifest_); });
  }
  TemporaryDirectory dir_;
  std::string root_;
  MigrationManifest manifest_;
};

TEST_F(RequireUnchangedTest, UntouchedSourcePasses) {
  EXPECT_NO_THROW(MigrationIntegrityVerifier::requireUnchanged(root_, manifest_));
}

TEST_F(RequireUnchangedTest, EveryKindOfChangeIsNoticed) {
  const std::string file = root_ + "/Contents/Resources/deep/file5.txt";
  struct Change {
    const char* what;
    std::function<void()> apply;
  };
  std::vector<Change> changes = {
      {"appended", [&] { writeFile(file, readFile(file) + "more"); }},
      {"same size, new time", [&] {
         struct timespec times[2] = {{0, UTIME_OMIT}, {12345, 678}};
         utimensat(AT_FDCWD, file.c_str(), times, 0);
       }},
      {"mode", [&] { chmod(file.c_str(), 0600); }},
      {"added", [&] { writeFile(root_ + "/Contents/new.txt", "n"); }},
      {"removed", [&] { unlink((root_ + "/Contents/Resources/empty.txt").c_str()); }},
      {"link retargeted", [&] {
         unlink((root_ + "/Contents/dangling").c_str());
         symlink("other-target", (root_ + "/Contents/dangling").c_str());
       }},
      {"directory replaced", [&] {
         rename((root_ + "/empty").c_str(), (root_ + "/empty-old").c_str());
         mkdir((root_ + "/empty").c_str(), 0755);
       }},
  };
  for (const auto& change : changes) {
    SCOPED_TRACE(change.what);
    EXPECT_EQ(changeKey(change.apply), "error.migration_source_changed");
    manifest_ = scan(root_);  // accept the change before trying the next one
  }
}

TEST_F(RequireUnchangedTest, ReportsTheSourcePathNotTheEntry) {
  unlink((root_ + "/Contents/Info.plist").c_str());
  try {
    MigrationIntegrityVerifier::requireUnchanged(root_, manifest_);
    FAIL();
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.detail(), root_);
  }
}

}  // namespace
}  // namespace corvane
