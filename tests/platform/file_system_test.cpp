#include "platform/file_system.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>

#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/posix_error.h"
#include "platform/read_ahead.h"
#include "platform/volume.h"

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

TEST(FileSystemTest, ExclusiveRenameNeverReplacesAndStatTellsAbsenceFromFailure) {
  TemporaryDirectory dir;
  writeFile(dir.child("a"), "a");
  writeFile(dir.child("b"), "b");
  EXPECT_EQ(errnoOf([&] { renameExclusive(dir.child("a"), dir.child("b")); }), EEXIST);
  EXPECT_EQ(readFile(dir.child("b")), "b");
  renameExclusive(dir.child("a"), dir.child("c"));
  EXPECT_EQ(readFile(dir.child("c")), "a");
  // Stat reports absence, but not other failures.
  EXPECT_FALSE(statNoFollow(AT_FDCWD, dir.child("missing")));
  EXPECT_EQ(errnoOf([&] { statNoFollow(AT_FDCWD, dir.child("c/child")); }), ENOTDIR);
}

// Files are opened ahead only when they are regular files: a FIFO would block the open, a link
// would lead elsewhere. The queue hands each file to its own turn and closes the ones passed over.
TEST(ReadAheadTest, OnlyRegularFilesOpenAheadAndPassedOverOnesAreClosed) {
  TemporaryDirectory dir;
  writeFile(dir.child("data"), "abc");
  ASSERT_EQ(::mkfifo(dir.child("pipe").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("data", dir.child("link").c_str()), 0);
  makeDirectories(dir.child("folder"));
  UniqueFd directory(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(directory);
  auto data = openAhead(directory.get(), "data", kReadAheadFirstBytes, CachedPages::keep);
  ASSERT_TRUE(data.has_value());
  EXPECT_EQ(data->status.size, 3);
  EXPECT_EQ(data->status.inode, statNoFollow(AT_FDCWD, dir.child("data"))->inode);
  for (const char* name : {"pipe", "link", "folder", "missing"}) {
    EXPECT_FALSE(openAhead(directory.get(), name, kReadAheadFirstBytes, CachedPages::drop).has_value()) << name;
  }

  ReadAheadQueue<int> queue;
  std::vector<int> descriptors;
  for (int key = 0; queue.hasRoom(); ++key) {
    auto opened = openAhead(directory.get(), "data", kReadAheadFirstBytes, CachedPages::keep);
    ASSERT_TRUE(opened.has_value());
    descriptors.push_back(opened->descriptor.get());
    queue.push(key, std::move(*opened));
  }
  EXPECT_EQ(queue.size(), kReadAheadFiles);
  auto isOpen = [](int descriptor) { return ::fcntl(descriptor, F_GETFD) != -1; };
  auto third = queue.take(2);
  ASSERT_TRUE(third.has_value());
  EXPECT_EQ(third->descriptor.get(), descriptors[2]);
  EXPECT_FALSE(isOpen(descriptors[0]) || isOpen(descriptors[1])) << "passed over, so closed";
  EXPECT_FALSE(queue.take(1).has_value());
  EXPECT_TRUE(queue.hasRoom());
  EXPECT_FALSE(queue.take(static_cast<int>(kReadAheadFiles) + 5).has_value());
  EXPECT_EQ(queue.size(), 0u);
  EXPECT_FALSE(isOpen(descriptors.back()));
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

// Binary attribute values and ACLs are copied and checked by the copier tests; here only what they do not meet.
TEST(FileSystemTest, ExtendedAttributesMayBeEmptyOrAbsentAndBelongToTheObjectItself) {
  TemporaryDirectory dir;
  writeFile(dir.child("f"), "x");
  writeExtendedAttribute(dir.child("f"), "user.empty", "");
  const auto names = listExtendedAttributes(dir.child("f"));
  EXPECT_NE(std::find(names.begin(), names.end(), "user.empty"), names.end());
  EXPECT_EQ(readExtendedAttribute(dir.child("f"), "user.empty"), "");
  EXPECT_EQ(errnoOf([&] { readExtendedAttribute(dir.child("f"), "user.absent"); }), ENODATA);
  // A link's own attributes are read, not its target's.
  ASSERT_EQ(symlink("f", dir.child("l").c_str()), 0);
  EXPECT_TRUE(listExtendedAttributes(dir.child("l")).empty());
}

struct CapabilityCase {
  VolumeKind kind;
  bool symbolicLinks;
  bool permissions;
};

class VolumeCapabilityTest : public ::testing::TestWithParam<CapabilityCase> {};

TEST_P(VolumeCapabilityTest, ProbeTellsWhatTheVolumeCanHoldAndLeavesNothingBehind) {
  CORVANE_TEST_VOLUME(volume, GetParam().kind);
  auto capabilities = volumeCapabilities(volume->mountPoint());
  EXPECT_EQ(capabilities.symbolicLinks, GetParam().symbolicLinks);
  EXPECT_EQ(capabilities.accessPermissions, GetParam().permissions);
  EXPECT_GT(availableCapacity(volume->mountPoint()), 0);
  for (const auto& entry : std::filesystem::directory_iterator(volume->mountPoint())) {
    EXPECT_NE(entry.path().filename().string().rfind(".corvane-capabilities-", 0), 0u) << "the probe's folder stays";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Volumes, VolumeCapabilityTest,
    ::testing::Values(CapabilityCase{VolumeKind::ext4, true, true}, CapabilityCase{VolumeKind::xfs, true, true},
                      CapabilityCase{VolumeKind::btrfs, true, true}, CapabilityCase{VolumeKind::tmpfs, true, true},
                      CapabilityCase{VolumeKind::fat, false, false}, CapabilityCase{VolumeKind::exfat, false, false}),
    [](const auto& info) { return std::string(volumeKindName(info.param.kind)); });

TEST(VolumeCapabilityTest, MissingDirectoryIsAnErrorWithItsPath) {
  EXPECT_EQ(errnoOf([] { volumeCapabilities("/nonexistent/corvane"); }), ENOENT);
}

}  // namespace
}  // namespace corvane::platform
