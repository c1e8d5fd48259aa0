#include <gtest/gtest.h>

#include "disks/drift_detection.h"
#include "disks/volume_acceptance.h"
#include "disks/volumes_roots.h"

namespace corvane {
namespace {

TEST(VolumesRootsTest, AVolumeIsTheFirstNameBelowTheDeepestRootAndNothingClimbsOut) {
  const VolumesRoots roots({"/media/me/", "/media", "/mnt", "relative", "/media"});
  EXPECT_EQ(roots.roots(), (std::vector<std::string>{"/media/me", "/media", "/mnt"}));

  EXPECT_EQ(roots.volumePathOf("/media/me/Backup/Apps/Tool"), "/media/me/Backup");
  EXPECT_EQ(roots.volumePathOf("/media/me/Backup/"), "/media/me/Backup");
  EXPECT_EQ(roots.volumePathOf("/media/Other"), "/media/Other");
  EXPECT_EQ(roots.volumePathOf("/mnt/My Disk/x"), "/mnt/My Disk");

  // Roots themselves, paths beside them and crafted paths are never volumes.
  for (const char* outside : {"/media/me", "/media", "/mnt/", "/mediax/Backup", "/tmp/Backup", "media/me/Backup",
                              "/media/me/../../etc", "/mnt/./Backup", "/mnt//Backup", ""}) {
    EXPECT_FALSE(roots.contains(outside)) << outside;
  }
}

TEST(VolumeRulesTest, OnlyExternalVolumesBelowARootAreAcceptedAndEachRefusalSaysWhy) {
  const VolumesRoots roots({"/Volumes", "/media/me"});
  platform::MountedVolume usb;
  usb.path = "/media/me/Stick";
  usb.isRemovable = true;
  usb.isInternal = false;
  usb.isLocal = true;
  usb.isBrowsable = true;
  EXPECT_TRUE(judgeScannedVolume(usb, roots).accepted);

  // Backups, snapshots and simulator runtimes never qualify, however removable.
  for (const char* excluded : {"/Volumes/com.apple.TimeMachine.localsnapshots", "/Volumes/Data/.MobileBackups",
                               "/Volumes/x/Library/Developer/CoreSimulator/y", "/Volumes/CoreSimulator/Volumes/iOS"}) {
    usb.path = excluded;
    EXPECT_FALSE(judgeScannedVolume(usb, roots).accepted) << excluded;
    EXPECT_TRUE(judgeScannedVolume(usb, roots).refusalLog.empty()) << excluded;
  }
  usb.path = "/mnt/Stick";  // not below a root
  EXPECT_FALSE(judgeScannedVolume(usb, roots).accepted);

  // Missing values: internal unless told otherwise, local, not browsable.
  platform::MountedVolume unknown;
  unknown.path = "/Volumes/Disk";
  unknown.isBrowsable = true;
  EXPECT_EQ(
      judgeScannedVolume(unknown, roots).refusalLog,
      "⚠️ 磁盘被过滤: /Volumes/Disk (isInternal=true, isRemovable=false, isEjectable=false, isLocal=true, "
      "isBrowsable=true)");
  unknown.isEjectable = true;  // a disk image
  EXPECT_TRUE(judgeScannedVolume(unknown, roots).accepted);
  unknown.isBrowsable.reset();
  EXPECT_FALSE(judgeScannedVolume(unknown, roots).accepted);
  platform::MountedVolume network = usb;
  network.path = "/Volumes/Share";
  network.isLocal = false;
  EXPECT_FALSE(judgeScannedVolume(network, roots).accepted);

  // The appeared notification counts every missing flag as false, so an unknown disk is external.
  platform::VolumeChange appeared;
  appeared.path = "/Volumes/New";
  EXPECT_TRUE(judgeAppearedVolume(appeared, roots).accepted);
  appeared.isInternal = true;
  EXPECT_EQ(
      judgeAppearedVolume(appeared, roots).refusalLog,
      "⚠️ 磁盘被过滤: /Volumes/New (isInternal=true, isRemovable=false, isEjectable=false, isValidPath=true)");
  appeared.path = "/Volumes/com.apple.TimeMachine.x";
  appeared.isRemovable = true;
  EXPECT_FALSE(judgeAppearedVolume(appeared, roots).accepted);
}

TEST(VolumeRulesTest, TheRecordsOriginalPathsVoteForWhereTheDiskBelongs) {
  const VolumesRoots roots({"/Volumes"});
  auto record = [](std::string originalPath, std::string targetPath = "/Volumes/Elsewhere/x") {
    MigratedApp app;
    app.originalPath = std::move(originalPath);
    app.targetPath = std::move(targetPath);
    return app;
  };
  // Items from the internal disk never vote, whatever their target says.
  EXPECT_EQ(expectedVolumePath({record("/Applications/Tool.app"), record("/Users/me/Work")}, roots), std::nullopt);
  EXPECT_EQ(expectedVolumePath({record("/Volumes/Backup/Apps/Tool.app"), record("/Volumes/Other/A.app"),
                                record("/Volumes/Backup/B.app"), record("/Users/me/Work")},
                               roots),
            "/Volumes/Backup");
  EXPECT_EQ(expectedVolumePath({record("/Volumes/Backup")}, roots), "/Volumes/Backup");
  // A tie goes to the first name met; crafted paths name no volume.
  EXPECT_EQ(expectedVolumePath({record("/Volumes/Zed/a"), record("/Volumes/Alpha/b")}, roots), "/Volumes/Alpha");
  EXPECT_EQ(expectedVolumePath({record("/Volumes/../etc/x"), record("/Volumes")}, roots), std::nullopt);
}

}  // namespace
}  // namespace corvane
