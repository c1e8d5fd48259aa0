#include "disks/volumes_roots.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace corvane
