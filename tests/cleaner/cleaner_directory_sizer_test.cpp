#include "cleaner/cleaner_directory_sizer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stop_token>

#include "cleaner/cleaner_test_support.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"

namespace corvane {
namespace {

using cleaner_test::duBytesBelow;
using cleaner_test::writeSizedFile;

// A cache tree with what real caches hold: nested folders, files of many sizes, an empty
// file, hard links inside the tree and to a file outside it, and links that point out.
void buildCacheTree(const std::string& root, const std::string& outside) {
  makeDirectories(root + "/empty-dir");
  writeSizedFile(root + "/small", 10);
  writeSizedFile(root + "/a/medium", 70'000);
  writeSizedFile(root + "/a/b/c/large", 1'000'000);
  writeSizedFile(root + "/empty", 0);
  writeSizedFile(outside + "/huge", 4'000'000);
  writeSizedFile(outside + "/big-dir/inside", 3'000'000);
  ASSERT_EQ(::link((root + "/a/medium").c_str(), (root + "/a/b/medium-again").c_str()), 0);
  ASSERT_EQ(::link((outside + "/huge").c_str(), (root + "/huge-shared").c_str()), 0);
  ASSERT_EQ(::symlink((outside + "/huge").c_str(), (root + "/link-to-file").c_str()), 0);
  ASSERT_EQ(::symlink((outside + "/big-dir").c_str(), (root + "/a/link-to-dir").c_str()), 0);
  ASSERT_EQ(::symlink("../../../nowhere", (root + "/a/b/dangling").c_str()), 0);
}

TEST(CleanerDirectorySizerTest, AgreesWithDuBelowTheRootWithoutFollowingLinks) {
  TemporaryDirectory home;
  const std::string root = home.child("cache");
  buildCacheTree(root, home.child("outside"));
  const auto sizing = CleanerDirectorySizer().calculateDirectorySizeSynchronously({root});
  EXPECT_FALSE(sizing.cancelled);
  EXPECT_TRUE(sizing.unreadable.empty());
  EXPECT_EQ(sizing.bytes, duBytesBelow(root));
  // The linked-to 4 MB file and 3 MB folder are outside: only the shared hard link counts it.
  EXPECT_LT(sizing.bytes, 4'000'000 + 1'000'000 + 70'000 + 3'000'000);
  EXPECT_EQ(sizing.entries, 13u);
  // A root that is itself a link (a cache moved to another disk) is measured inside its target.
  ASSERT_EQ(::symlink(root.c_str(), home.child("cache-link").c_str()), 0);
  EXPECT_EQ(CleanerDirectorySizer().calculateDirectorySizeSynchronously({home.child("cache-link")}).bytes,
            duBytesBelow(root));
}

TEST(CleanerDirectorySizerTest, MissingRootsAndFilesContributeNothingAndHardLinksCountOnceAcrossRoots) {
  TemporaryDirectory home;
  makeDirectories(home.child("registry/src"));
  writeSizedFile(home.child("registry/cache/crate"), 200'000);
  ASSERT_EQ(::link(home.child("registry/cache/crate").c_str(), home.child("registry/src/crate").c_str()), 0);
  writeSizedFile(home.child("a-file"), 5000);
  const auto sizing = CleanerDirectorySizer().calculateDirectorySizeSynchronously(
      {home.child("registry/cache"), home.child("missing"), home.child("a-file"), home.child("registry/src")});
  EXPECT_EQ(sizing.bytes, duBytesBelow(home.child("registry/cache")));
  EXPECT_TRUE(sizing.unreadable.empty());
}

TEST(CleanerDirectorySizerTest, ExcludedNamesAtTheTopAreLeftOut) {
  TemporaryDirectory home;
  const std::string root = home.child(".cache");
  writeSizedFile(root + "/pip/wheels/w", 300'000);
  writeSizedFile(root + "/app/pip/kept", 40'000);  // same name deeper down: still counted
  writeSizedFile(root + "/other", 20'000);
  struct stat pipDirectory {};
  ASSERT_EQ(::stat((root + "/pip").c_str(), &pipDirectory), 0);
  const auto excluded = duBytesBelow(root + "/pip") + pipDirectory.st_blocks * 512;
  EXPECT_EQ(CleanerDirectorySizer().calculateDirectorySizeSynchronously({root}, {"pip"}).bytes,
            duBytesBelow(root) - excluded);
}

TEST(CleanerDirectorySizerTest, DeepTreesAreMeasuredPastTheOpenDescriptorWindow) {
  TemporaryDirectory home;
  std::string path = home.child("deep");
  for (int level = 0; level < 150; ++level) {
    path += "/d" + std::to_string(level);
    makeDirectories(path);
    writeSizedFile(path + "/f", 5000);
  }
  EXPECT_EQ(CleanerDirectorySizer().calculateDirectorySizeSynchronously({home.child("deep")}).bytes,
            duBytesBelow(home.child("deep")));
}

TEST(CleanerDirectorySizerTest, StopsAtTheThousandthEntryOnceCancelled) {
  TemporaryDirectory home;
  for (int file = 0; file < 2500; ++file) writeFile(home.child("f" + std::to_string(file)), "x");
  std::stop_source stop;
  stop.request_stop();
  const auto sizing = CleanerDirectorySizer(stop.get_token()).calculateDirectorySizeSynchronously({home.path()});
  EXPECT_TRUE(sizing.cancelled);
  EXPECT_EQ(sizing.entries, 1000u);
}

TEST(CleanerDirectorySizerTest, UnreadableFoldersAreReportedAndTheRestIsStillMeasured) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to measure as an unprivileged user (nobody)";
  TemporaryDirectory home;
  ::chmod(home.path().c_str(), 0755);
  const std::string root = home.child("cache");
  writeSizedFile(root + "/open/visible", 100'000);
  writeSizedFile(root + "/open/closed/hidden", 500'000);
  cleaner_test::giveToNobody(root);
  ::chmod((root + "/open/closed").c_str(), 0);
  const auto hidden = duBytesBelow(root + "/open/closed");
  const auto output = cleaner_test::runAsNobody([&] {
    const auto sizing = CleanerDirectorySizer().calculateDirectorySizeSynchronously({root});
    return std::to_string(sizing.bytes) + " " + (sizing.unreadable.empty() ? "" : sizing.unreadable.front());
  });
  ASSERT_TRUE(output.has_value());
  EXPECT_EQ(*output, std::to_string(duBytesBelow(root) - hidden) + " " + root + "/open/closed");
}

TEST(CleanerDirectorySizerTest, AnotherVolumeMountedInsideIsNotMeasured) {
  TemporaryDirectory home;
  const std::string root = home.child("cache");
  makeDirectories(root + "/mounted");
  writeSizedFile(root + "/file", 50'000);
  const auto before = CleanerDirectorySizer().calculateDirectorySizeSynchronously({root}).bytes;
  cleaner_test::ScratchMount mount(root + "/mounted");
  if (!mount.mounted()) GTEST_SKIP() << "needs root to mount a tmpfs inside the tree";
  writeSizedFile(root + "/mounted/elsewhere", 2'000'000);
  EXPECT_LE(CleanerDirectorySizer().calculateDirectorySizeSynchronously({root}).bytes, before);
}

}  // namespace
}  // namespace corvane
