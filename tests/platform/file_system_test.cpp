#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>

#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"

namespace corvane::platform {
namespace {

int errnoOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const PosixError& error) {
    return error.errnoValue();
  }
  return 0;
}

TEST(FileSystemTest, ExclusiveRenameNeverReplaces) {
  TemporaryDirectory dir;
  writeFile(dir.child("a"), "a");
  writeFile(dir.child("b"), "b");
  EXPECT_EQ(errnoOf([&] { renameExclusive(dir.child("a"), dir.child("b")); }), EEXIST);
  EXPECT_EQ(readFile(dir.child("b")), "b");
  renameExclusive(dir.child("a"), dir.child("c"));
  EXPECT_EQ(readFile(dir.child("c")), "a");
}

TEST(FileSystemTest, ExchangeSwapsADirectoryAndALinkAtomically) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  makeDirectories(volume->child("item"));
  writeFile(volume->child("item/file"), "data");
  ASSERT_EQ(symlink("/elsewhere", volume->child("link").c_str()), 0);
  exchangePaths(volume->child("item"), volume->child("link"));
  EXPECT_EQ(readLinkText(AT_FDCWD, volume->child("item")), "/elsewhere");
  EXPECT_EQ(readFile(volume->child("link/file")), "data");
  EXPECT_EQ(errnoOf([&] { exchangePaths(volume->child("item"), volume->child("missing")); }), ENOENT);
}

TEST(FileSystemTest, FatVolumeCannotExchangeAndSaysSo) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::fat);
  makeDirectories(volume->child("a"));
  makeDirectories(volume->child("b"));
  writeFile(volume->child("a/marker"), "a");
  const int error = errnoOf([&] { exchangePaths(volume->child("a"), volume->child("b")); });
  EXPECT_TRUE(isExchangeUnsupported(error)) << "errno " << error;
  EXPECT_EQ(readFile(volume->child("a/marker")), "a");
}

TEST(FileSystemTest, ImmutableAndAppendOnlyFlagsReadAsTheirPortableBits) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  writeFile(volume->child("locked"), "x");
  writeFile(volume->child("append"), "x");
  setFileFlags(volume->child("locked"), kUserImmutable);
  setFileFlags(volume->child("append"), kSystemAppend);
  EXPECT_EQ(statNoFollow(AT_FDCWD, volume->child("locked"))->flags, kSystemImmutable);
  EXPECT_EQ(statNoFollow(AT_FDCWD, volume->child("append"))->flags, kSystemAppend);
  EXPECT_NE(unlink(volume->child("locked").c_str()), 0);
  setFileFlags(volume->child("locked"), 0);
  setFileFlags(volume->child("append"), 0);
  EXPECT_EQ(statNoFollow(AT_FDCWD, volume->child("locked"))->flags, 0u);
}

TEST(FileSystemTest, ExtendedAttributesRoundTripBinaryValuesOnTheObjectItself) {
  TemporaryDirectory dir;
  writeFile(dir.child("f"), "x");
  const std::string binary("\0\x01\xff value", 9);
  writeExtendedAttribute(dir.child("f"), "user.binary", binary);
  writeExtendedAttribute(dir.child("f"), "user.empty", "");
  auto names = listExtendedAttributes(dir.child("f"));
  EXPECT_NE(std::find(names.begin(), names.end(), "user.binary"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "user.empty"), names.end());
  EXPECT_EQ(readExtendedAttribute(dir.child("f"), "user.binary"), binary);
  EXPECT_EQ(readExtendedAttribute(dir.child("f"), "user.empty"), "");
  EXPECT_EQ(errnoOf([&] { readExtendedAttribute(dir.child("f"), "user.absent"); }), ENODATA);
  // A link's own attributes are read, not its target's.
  ASSERT_EQ(symlink("f", dir.child("l").c_str()), 0);
  EXPECT_TRUE(listExtendedAttributes(dir.child("l")).empty());
}

TEST(FileSystemTest, AccessControlListsAreCopiedOnlyWhenTheyGoBeyondTheMode) {
  TemporaryDirectory dir;
  buildSampleTree(dir.child("item"), {.accessControlList = true});
  const std::string withAcl = dir.child("item/Contents/Resources/deep/file2.txt");
  const std::string plain = dir.child("item/Contents/Resources/deep/file4.txt");
  writeFile(dir.child("target"), "t");
  EXPECT_TRUE(hasExtendedAccessControlList(withAcl));
  EXPECT_FALSE(hasExtendedAccessControlList(plain));
  copyAccessControlList(withAcl, dir.child("target"));
  EXPECT_TRUE(hasExtendedAccessControlList(dir.child("target")));
  EXPECT_EQ(listExtendedAttributes(dir.child("target")), listExtendedAttributes(withAcl));
}

TEST(FileSystemTest, StatReportsAbsenceButNotOtherFailures) {
  TemporaryDirectory dir;
  EXPECT_FALSE(statNoFollow(AT_FDCWD, dir.child("missing")));
  writeFile(dir.child("file"), "x");
  EXPECT_EQ(errnoOf([&] { statNoFollow(AT_FDCWD, dir.child("file/child")); }), ENOTDIR);
}

}  // namespace
}  // namespace corvane::platform
