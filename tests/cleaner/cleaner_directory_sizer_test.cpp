// Deep trees, cancellation, unreadable folders and mounts inside the tree are exercised on the
// removal side (cleaner_tree_removal_test.cpp), which walks with the same directory chain.
#include "cleaner/cleaner_directory_sizer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cleaner/cleaner_test_support.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"

namespace corvane {
namespace {

using cleaner_test::duBytesBelow;
using cleaner_test::writeSizedFile;

TEST(CleanerDirectorySizerTest, AgreesWithDuBelowTheRootWithoutFollowingLinksOrCountingAHardLinkTwice) {
  TemporaryDirectory home;
  const std::string root = home.child("cache");
  const std::string outside = home.child("outside");
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
  const auto sizing = CleanerDirectorySizer().calculateDirectorySizeSynchronously({root});
  EXPECT_FALSE(sizing.cancelled);
  EXPECT_TRUE(sizing.unreadable.empty());
  EXPECT_EQ(sizing.bytes, duBytesBelow(root));
  EXPECT_EQ(sizing.entries, 13u);
  // A root that is itself a link (a cache moved to another disk) is measured inside its target.
  ASSERT_EQ(::symlink(root.c_str(), home.child("cache-link").c_str()), 0);
  EXPECT_EQ(CleanerDirectorySizer().calculateDirectorySizeSynchronously({home.child("cache-link")}).bytes,
            duBytesBelow(root));
  // Missing roots and plain files add nothing; a hard link shared by two roots counts once.
  makeDirectories(home.child("second"));
  ASSERT_EQ(::link((root + "/a/b/c/large").c_str(), home.child("second/large").c_str()), 0);
  writeSizedFile(home.child("a-file"), 5000);
  EXPECT_EQ(CleanerDirectorySizer()
                .calculateDirectorySizeSynchronously(
                    {root, home.child("missing"), home.child("a-file"), home.child("second")})
                .bytes,
            duBytesBelow(root));
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

}  // namespace
}  // namespace corvane
