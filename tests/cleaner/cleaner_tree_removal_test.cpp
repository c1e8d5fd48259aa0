#include "cleaner/cleaner_tree_removal.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cleaner/cleaner_test_support.h"
#include "cleaner/directory_chain.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/file_system.h"

namespace corvane {
namespace {

using cleaner_test::existsNoFollow;
using cleaner_test::namesIn;
using cleaner_test::writeSizedFile;

// Names excluded at the top of a root are shown by the Linux cache-folder test of the manager.

// A cache with everything that could lead a careless removal out of it: links to a file and a
// folder outside, a hard link whose other name is outside, a FIFO, and nested folders.
struct CacheWithEscapes {
  explicit CacheWithEscapes(const std::string& base) : root(base + "/cache"), outside(base + "/outside") {
    writeFile(outside + "/precious", "keep me");
    writeFile(outside + "/folder/inside", "keep me too");
    writeFile(outside + "/shared", "one inode, two names");
    writeSizedFile(root + "/nested/deeper/blob", 100'000);
    writeFile(root + "/top", "cache");
    ::symlink((outside + "/precious").c_str(), (root + "/link-to-file").c_str());
    ::symlink((outside + "/folder").c_str(), (root + "/nested/link-to-folder").c_str());
    ::symlink("../../outside", (root + "/nested/relative-climb").c_str());
    ::link((outside + "/shared").c_str(), (root + "/hard-link").c_str());
    ::mkfifo((root + "/nested/pipe").c_str(), 0600);
  }
  void expectOutsideUntouched() const {
    EXPECT_EQ(readFile(outside + "/precious"), "keep me");
    EXPECT_EQ(readFile(outside + "/folder/inside"), "keep me too");
    EXPECT_EQ(readFile(outside + "/shared"), "one inode, two names");
  }
  std::string root;
  std::string outside;
};

TEST(CleanerTreeRemovalTest, EachCleaningModeKeepsWhatItShouldAndNeverReachesThroughLinks) {
  TemporaryDirectory home;
  CacheWithEscapes cache(home.path());
  struct stat before {};
  ::stat(cache.root.c_str(), &before);
  const auto report = CleanerTreeRemoval().clean({cache.root}, PathCleaning::emptyInPlace);
  EXPECT_EQ(report.problemCount, 0u);
  EXPECT_EQ(report.removedEntries, 9u);
  EXPECT_TRUE(namesIn(cache.root).empty());
  struct stat after {};
  ::stat(cache.root.c_str(), &after);
  EXPECT_EQ(after.st_ino, before.st_ino) << "the folder itself stays";
  cache.expectOutsideUntouched();

  // Removed folders come back empty, with their mode, only when asked to.
  CacheWithEscapes caches(home.child("Caches"));
  ::chmod(caches.root.c_str(), 0700);
  CacheWithEscapes logs(home.child("Logs"));
  EXPECT_FALSE(CleanerTreeRemoval().deleteDirectories({caches.root}, PathCleaning::removeAndRecreate).has_value());
  EXPECT_FALSE(CleanerTreeRemoval().deleteDirectories({logs.root}, PathCleaning::remove).has_value());
  struct stat recreated {};
  ASSERT_EQ(::lstat(caches.root.c_str(), &recreated), 0);
  EXPECT_TRUE(S_ISDIR(recreated.st_mode));
  EXPECT_EQ(recreated.st_mode & 07777, 0700u);
  EXPECT_TRUE(namesIn(caches.root).empty());
  EXPECT_FALSE(existsNoFollow(logs.root));
  caches.expectOutsideUntouched();
  logs.expectOutsideUntouched();
}

TEST(CleanerTreeRemovalTest, ARootThatIsALinkIsCleanedInsideItsTargetAndTheLinkStays) {
  TemporaryDirectory home;
  // A cache folder moved to an external disk, with a link left where it was.
  CacheWithEscapes moved(home.child("external"));
  const std::string link = home.child("Library/Caches");
  makeDirectories(home.child("Library"));
  ASSERT_EQ(::symlink(moved.root.c_str(), link.c_str()), 0);
  for (auto cleaning : {PathCleaning::removeAndRecreate, PathCleaning::remove, PathCleaning::emptyInPlace}) {
    writeFile(moved.root + "/again", "refilled");
    EXPECT_FALSE(CleanerTreeRemoval().deleteDirectories({link}, cleaning).has_value());
    struct stat status {};
    ASSERT_EQ(::lstat(link.c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode)) << "never replaced by an empty folder";
    EXPECT_EQ(platform::readLinkText(AT_FDCWD, link), moved.root);
    EXPECT_TRUE(namesIn(moved.root).empty());
  }
  moved.expectOutsideUntouched();
}

TEST(CleanerTreeRemovalTest, ALinkedRootPointingAtAFolderAboveItIsRefused) {
  TemporaryDirectory home;
  writeFile(home.child("Documents-file"), "irreplaceable");
  makeDirectories(home.child("Library"));
  ASSERT_EQ(::symlink(home.path().c_str(), home.child("Library/Caches").c_str()), 0);
  ASSERT_EQ(::symlink("/", home.child("Library/Logs").c_str()), 0);
  const auto report = CleanerTreeRemoval().clean({home.child("Library/Caches"), home.child("Library/Logs")},
                                                 PathCleaning::emptyInPlace);
  EXPECT_EQ(report.problemCount, 2u);
  EXPECT_EQ(report.removedEntries, 0u);
  EXPECT_EQ(readFile(home.child("Documents-file")), "irreplaceable");
  ASSERT_FALSE(report.problems.empty());
  EXPECT_EQ(report.problems.front().reasonKey, "cleaner.error.unsafe_link_target");
}

TEST(CleanerTreeRemovalTest, DeepTreesAreRemovedPastTheOpenDescriptorWindow) {
  TemporaryDirectory home;
  std::string path = home.child("deep");
  for (int level = 0; level < 3 * static_cast<int>(DirectoryChain::kOpenLevels); ++level) {
    path += "/level" + std::to_string(level);
    makeDirectories(path);
    writeFile(path + "/file", "x");
  }
  EXPECT_FALSE(CleanerTreeRemoval().deleteDirectories({home.child("deep")}, PathCleaning::emptyInPlace).has_value());
  EXPECT_TRUE(namesIn(home.child("deep")).empty());
}

TEST(CleanerTreeRemovalTest, WhatCannotBeRemovedIsReportedWhileEverythingElseGoes) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to set the immutable flag";
  TemporaryDirectory home;
  const std::string root = home.child("Logs");
  writeFile(root + "/app/old/locked.log", "locked");
  writeFile(root + "/app/fresh.log", "fresh");
  writeFile(root + "/other.log", "other");
  try {
    platform::setFileFlags(root + "/app/old/locked.log", platform::kSystemImmutable);
  } catch (const std::exception& error) {
    GTEST_SKIP() << "this file system has no immutable flag: " << error.what();
  }
  const auto failure = CleanerTreeRemoval().deleteDirectories({root}, PathCleaning::remove);
  platform::setFileFlags(root + "/app/old/locked.log", 0);
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->key, "cleaner.error.remove_failed");
  ASSERT_FALSE(failure->arguments.empty());
  EXPECT_EQ(failure->arguments.front(), root + "/app/old/locked.log");
  // Only the chain of folders holding the locked file is left.
  EXPECT_EQ(namesIn(root), std::vector<std::string>{"app"});
  EXPECT_EQ(namesIn(root + "/app"), std::vector<std::string>{"old"});
  EXPECT_EQ(readFile(root + "/app/old/locked.log"), "locked");
}

TEST(CleanerTreeRemovalTest, AnotherVolumeMountedInsideIsLeftAlone) {
  TemporaryDirectory home;
  const std::string root = home.child("cache");
  makeDirectories(root + "/mounted");
  writeFile(root + "/plain", "p");
  cleaner_test::ScratchMount mount(root + "/mounted");
  if (!mount.mounted()) GTEST_SKIP() << "needs root to mount a tmpfs inside the tree";
  writeFile(root + "/mounted/on-another-volume", "keep");
  const auto report = CleanerTreeRemoval().clean({root}, PathCleaning::emptyInPlace);
  EXPECT_EQ(report.problemCount, 1u);
  EXPECT_EQ(report.problems.front().reasonKey, "cleaner.error.mount_point");
  const auto message = failureFromReport(report).message();
  EXPECT_NE(message.find(root + "/mounted"), std::string::npos) << message;
  EXPECT_EQ(message.find("cleaner.error"), std::string::npos) << message;
  EXPECT_EQ(readFile(root + "/mounted/on-another-volume"), "keep");
  EXPECT_FALSE(existsNoFollow(root + "/plain"));
}

TEST(CleanerTreeRemovalTest, AFolderSwappedForALinkAfterListingIsNotEntered) {
  TemporaryDirectory home;
  makeDirectories(home.child("root/sub"));
  makeDirectories(home.child("impostor"));  // made while "sub" exists, so it cannot reuse its inode
  writeFile(home.child("victim/file"), "keep");
  DirectoryChain chain(openDirectory(home.child("root"), FollowFinalLink::refuse), home.child("root"));
  const auto listed = platform::statNoFollow(chain.current(), "sub");
  ASSERT_TRUE(listed.has_value());
  ASSERT_EQ(::rmdir(home.child("root/sub").c_str()), 0);
  ASSERT_EQ(::symlink(home.child("victim").c_str(), home.child("root/sub").c_str()), 0);
  EXPECT_THROW(chain.descend("sub", *listed), DirectoryChain::Changed);
  // A different folder under the same name is refused too.
  ASSERT_EQ(::unlink(home.child("root/sub").c_str()), 0);
  ASSERT_EQ(::rename(home.child("impostor").c_str(), home.child("root/sub").c_str()), 0);
  EXPECT_THROW(chain.descend("sub", *listed), DirectoryChain::Changed);
  EXPECT_EQ(readFile(home.child("victim/file")), "keep");
}

TEST(CleanerTreeRemovalTest, ACancelledCleanStopsAndSaysSo) {
  TemporaryDirectory home;
  makeDirectories(home.child("cache"));
  for (int file = 0; file < 2500; ++file) writeFile(home.child("cache/f" + std::to_string(file)), "x");
  std::stop_source stop;
  stop.request_stop();
  const auto failure =
      CleanerTreeRemoval(stop.get_token()).deleteDirectories({home.child("cache")}, PathCleaning::remove);
  ASSERT_TRUE(failure.has_value());
  EXPECT_EQ(failure->key, "cleaner.error.cancelled");
  EXPECT_EQ(namesIn(home.child("cache")).size(), 1501u);
}

}  // namespace
}  // namespace corvane
