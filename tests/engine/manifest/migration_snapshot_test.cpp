#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "engine/item_test_support.h"
#include "engine/verify/migration_integrity_verifier.h"
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

// The issue `action` throws, as "key: detail".
std::string issueText(const std::function<void()>& action) {
  try {
    action();
  } catch (const MigrationIssue& issue) {
    return issue.key() + ": " + issue.detail();
  }
  return "";
}

TEST(SnapshotTest, RecordsEveryObjectOnceWithoutFollowingLinksAndNoticesEveryChange) {
  TemporaryDirectory dir;
  const std::string root = dir.child("Sample.app");
  writeFile(dir.child("outside.txt"), "outside\n");
  buildSampleTree(root, {.fifo = true, .staleSocket = true, .sparseFile = true});
  std::vector<std::string> visited;
  auto manifest =
      MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::allow, ReadableCheck::check, RemovableCheck::check,
                                           [&](const std::string& path) { visited.push_back(path); });
  // Parents are recorded before their children and every path exactly once.
  EXPECT_EQ(visited.at(0), "");
  EXPECT_EQ(std::set<std::string>(visited.begin(), visited.end()).size(), visited.size());
  EXPECT_EQ(visited.size(), manifest.size());
  for (std::size_t i = 1; i < visited.size(); ++i) {
    auto slash = visited[i].rfind('/');
    const std::string parent = slash == std::string::npos ? "" : visited[i].substr(0, slash);
    EXPECT_LT(std::find(visited.begin(), visited.end(), parent) - visited.begin(), static_cast<long>(i)) << visited[i];
  }
  EXPECT_EQ(manifest.at("Contents/Resources/deep/climbs-out").link, "../../../../outside.txt");
  EXPECT_EQ(manifest.at("Contents/absolute-link").link, "/etc/hostname");
  EXPECT_EQ(manifest.count("Contents/absolute-link/x"), 0u);
  EXPECT_EQ(manifest.at("Contents/pipe").kind, MigrationEntry::Kind::fifo);
  EXPECT_EQ(manifest.at("Contents/stale.sock").kind, MigrationEntry::Kind::socket);
  EXPECT_EQ(manifest.at("Contents/sparse.bin").size, (8 << 20) + 4);
  // Hard links appear once per path, with one identity.
  EXPECT_EQ(manifest.at("Contents/hardlink.txt").identity(),
            manifest.at("Contents/Resources/deep/file3.txt").identity());
  EXPECT_NE(manifest.at("Contents/Resources/deep/file4.txt").identity(),
            manifest.at("Contents/Resources/deep/file3.txt").identity());
  // A later scan notices every kind of change, and reports the source's path, not the entry's.
  EXPECT_NO_THROW(MigrationIntegrityVerifier::requireUnchanged(root, manifest));
  const std::string file = root + "/Contents/Resources/deep/file5.txt", link = root + "/Contents/dangling",
                    empty = root + "/empty";
  struct timespec times[2] = {{0, UTIME_OMIT}, {12345, 678}};
  const std::vector<std::pair<const char*, std::function<void()>>> changes = {
      {"appended", [&] { writeFile(file, readFile(file) + "more"); }},
      {"same size, new time", [&] { utimensat(AT_FDCWD, file.c_str(), times, 0); }},
      {"mode", [&] { chmod(file.c_str(), 0600); }},
      {"added", [&] { writeFile(root + "/Contents/new.txt", "n"); }},
      {"removed", [&] { unlink((root + "/Contents/Resources/empty.txt").c_str()); }},
      {"link retargeted",
       [&] {
         unlink(link.c_str());
         symlink("other-target", link.c_str());
       }},
      {"directory replaced",
       [&] {
         rename(empty.c_str(), (empty + "-old").c_str());
         mkdir(empty.c_str(), 0755);
       }},
  };
  for (const auto& [what, change] : changes) {
    SCOPED_TRACE(what);
    change();
    EXPECT_EQ(issueText([&] { MigrationIntegrityVerifier::requireUnchanged(root, manifest); }),
              "error.migration_source_changed: " + root);
    manifest = scan(root);  // accept the change before trying the next one
  }
}

// A folder wider than the walk reads at once, with links and folders among its names, and a chain
// deeper than the walk keeps open: every entry must be the look at its own name, in order, and a
// refusal must name the first offending entry even while later names are being looked at.
TEST(SnapshotTest, WideFoldersAndChainsDeeperThanTheOpenLimitAreRecordedInOrder) {
  TemporaryDirectory dir;
  const std::string root = dir.child("item");
  mkdir(root.c_str(), 0755);
  auto fill = [](const std::string& folder, int count) {
    for (int i = 0; i < count; ++i) {
      const std::string name = folder + fmt::format("/n{:04}", i);
      if (i % 7 == 3) {
        symlink(fmt::format("to{:04}", i).c_str(), name.c_str());
      } else if (i % 500 == 250) {
        mkdir(name.c_str(), 0755);
        writeFile(name + "/inner", "x");
      } else {
        writeFile(name, name);
      }
    }
  };
  fill(root, 2600);
  std::string deep = root + "/chain";
  for (int level = 0; level < 140; ++level) mkdir((deep += "/c").c_str(), 0755);
  fill(deep, 60);

  std::vector<std::string> visited;
  const auto manifest =
      MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::refuse, ReadableCheck::check, RemovableCheck::check,
                                           [&](const std::string& path) { visited.push_back(path); });
  // Fixed-width names sort below '/', so the walk's order is the sorted order of the paths.
  ASSERT_EQ(visited.size(), manifest.size());
  EXPECT_TRUE(
      std::equal(visited.begin(), visited.end(), manifest.begin(), [](auto& a, auto& b) { return a == b.first; }));
  EXPECT_EQ(manifest.size(), 1u + 2600 + 4 + 1 + 140 + 60);
  for (const auto& [path, entry] : manifest) {
    struct stat status {};
    ASSERT_EQ(lstat((root + "/" + path).c_str(), &status), 0) << path;
    EXPECT_EQ(entry.inode, status.st_ino) << path;
    if (entry.kind == MigrationEntry::Kind::symbolicLink) {
      EXPECT_EQ(entry.link, "to" + path.substr(path.size() - 4)) << path;
    }
  }
  EXPECT_NO_THROW(MigrationIntegrityVerifier::requireUnchanged(root, manifest));

  // Past the open limit names are looked up by their whole path, and still in order.
  unlink((deep + "/n0040").c_str());
  mkfifo((deep + "/n0040").c_str(), 0644);
  EXPECT_EQ(issueText([&] { scan(root, RuntimeEntries::refuse); }), "error.migration_special_file: " + deep + "/n0040");
  unlink((deep + "/n0040").c_str());
  for (const char* name : {"/n0005", "/n2400"}) {
    unlink((root + name).c_str());
    mkfifo((root + name).c_str(), 0644);
  }
  EXPECT_EQ(issueText([&] { scan(root, RuntimeEntries::refuse); }), "error.migration_special_file: " + root + "/n0005");
}

TEST(SnapshotTest, RuntimeEntriesVanishedRootsAndLockedOrReadOnlyItemsAreRefused) {
  TemporaryDirectory dir;
  buildSampleTree(dir.child("fifo"), {.fifo = true});
  buildSampleTree(dir.child("socket"), {.staleSocket = true});
  for (const char* kind : {"fifo", "socket"}) {
    EXPECT_EQ(issueKeyOf([&] { scan(dir.child(kind), RuntimeEntries::refuse); }), "error.migration_special_file")
        << kind;
  }
  EXPECT_NO_THROW(scan(dir.child("socket"), RuntimeEntries::allow));
  EXPECT_EQ(issueText([&] { scan(dir.child("gone")); }), "error.migration_source_changed: " + dir.child("gone"));
  try {
    buildSampleTree(dir.child("item"), {.immutableFile = true});
  } catch (const std::exception& unsupported) {
    GTEST_SKIP() << "this file system cannot mark files immutable: " << unsupported.what();
  }
  EXPECT_EQ(issueText([&] { scan(dir.child("item"), RuntimeEntries::allow, RemovableCheck::check); }),
            "migration.preflight.locked: " + dir.child("item/Contents/locked.txt"));
  // Without the removable check the same tree scans, and the flag is in the manifest.
  EXPECT_EQ(scan(dir.child("item")).at("Contents/locked.txt").flags & platform::kLockedFlagsMask,
            platform::kSystemImmutable);
  // Nothing on a read-only volume is removable.
  CORVANE_TEST_VOLUME(volume, VolumeKind::tmpfs);
  buildSampleTree(volume->child("item"));
  remountReadOnly(*volume);
  EXPECT_EQ(issueKeyOf([&] { scan(volume->child("item"), RuntimeEntries::allow, RemovableCheck::check); }),
            "migration.preflight.not_removable");
  EXPECT_NO_THROW(scan(volume->child("item")));
}

}  // namespace
}  // namespace corvane
