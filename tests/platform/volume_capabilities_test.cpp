#include <gtest/gtest.h>
#include <dirent.h>
#include <sys/stat.h>

#include "fixtures/test_volume.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/volume.h"

namespace corvane {
namespace {

struct CapabilityCase {
  VolumeKind kind;
  bool symbolicLinks;
  bool permissions;
};

class VolumeCapabilityTest : public ::testing::TestWithParam<CapabilityCase> {};

TEST_P(VolumeCapabilityTest, ProbeTellsWhatTheVolumeCanHoldAndLeavesNothingBehind) {
  CORVANE_TEST_VOLUME(volume, GetParam().kind);
  auto capabilities = platform::volumeCapabilities(volume->mountPoint());
  EXPECT_EQ(capabilities.symbolicLinks, GetParam().symbolicLinks);
  EXPECT_EQ(capabilities.accessPermissions, GetParam().permissions);
  EXPECT_GT(platform::availableCapacity(volume->mountPoint()), 0);
  // The probe's hidden directory is gone again.
  int leftovers = 0;
  DIR* dir = opendir(volume->mountPoint().c_str());
  ASSERT_NE(dir, nullptr);
  while (dirent* item = readdir(dir)) {
    if (std::string(item->d_name).rfind(".corvane-capabilities-", 0) == 0) ++leftovers;
  }
  closedir(dir);
  EXPECT_EQ(leftovers, 0);
}

INSTANTIATE_TEST_SUITE_P(Volumes, VolumeCapabilityTest,
                         ::testing::Values(CapabilityCase{VolumeKind::ext4, true, true},
                                           CapabilityCase{VolumeKind::xfs, true, true},
                                           CapabilityCase{VolumeKind::btrfs, true, true},
                                           CapabilityCase{VolumeKind::tmpfs, true, true},
                                           CapabilityCase{VolumeKind::fat, false, false},
                                           CapabilityCase{VolumeKind::exfat, false, false}),
                         [](const auto& info) { return std::string(volumeKindName(info.param.kind)); });

TEST(VolumeCapabilityTest, MissingDirectoryIsAnErrorWithItsPath) {
  try {
    platform::volumeCapabilities("/nonexistent/corvane");
    FAIL() << "expected an error";
  } catch (const platform::PosixError& error) {
    EXPECT_EQ(error.errnoValue(), ENOENT);
  }
}

}  // namespace
}  // namespace corvane
