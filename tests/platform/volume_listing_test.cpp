#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>

#include "fixtures/loop_disk.h"
#include "fixtures/sample_tree.h"
#include "fixtures/shell_administrator_runner.h"
#include "fixtures/temporary_directory.h"
#include "platform/linux/block_device_class.h"
#include "platform/mounted_volumes.h"
#include "platform/volume_description.h"
#include "platform/volume_mounting.h"
#include "platform/volume_property_list.h"

namespace corvane {
namespace {

// Lays out /sys/dev/block/MAJ:MIN -> ../../devices/<place> as sysfs does.
void addBlockDevice(const std::string& sysfs, unsigned majorNumber, unsigned minorNumber, const std::string& place) {
  makeDirectories(sysfs + "/devices/" + place);
  makeDirectories(sysfs + "/dev/block");
  const std::string link = sysfs + "/dev/block/" + std::to_string(majorNumber) + ":" + std::to_string(minorNumber);
  ASSERT_EQ(symlink(("../../devices/" + place).c_str(), link.c_str()), 0);
}

void setBus(const std::string& sysfs, const std::string& place, const std::string& bus) {
  makeDirectories(sysfs + "/bus/" + bus);
  ASSERT_EQ(symlink((sysfs + "/bus/" + bus).c_str(), (sysfs + "/devices/" + place + "/subsystem").c_str()), 0);
}

TEST(VolumeListingTest, SysfsTellsExternalDisksFromInternalOnesAndImagesAreEjectable) {
  TemporaryDirectory sysfs;
  const std::string& root = sysfs.path();
  addBlockDevice(root, 8, 0, "pci0/ata1/host0/block/sda");
  addBlockDevice(root, 8, 17, "pci0/usb1/1-1/host6/block/sdb/sdb1");
  writeFile(root + "/devices/pci0/usb1/1-1/host6/block/sdb/sdb1/partition", "1");
  setBus(root, "pci0/usb1/1-1", "usb");
  addBlockDevice(root, 179, 1, "platform/mmc0/mmc0:0001/block/mmcblk0/mmcblk0p1");
  writeFile(root + "/devices/platform/mmc0/mmc0:0001/block/mmcblk0/mmcblk0p1/partition", "1");
  setBus(root, "platform/mmc0/mmc0:0001", "mmc");
  addBlockDevice(root, 11, 0, "pci0/ata2/host1/block/sr0");
  writeFile(root + "/devices/pci0/ata2/host1/block/sr0/removable", "1\n");
  addBlockDevice(root, 7, 3, "virtual/block/loop3");

  auto kind = [&](unsigned majorNumber, unsigned minorNumber) {
    const auto found = platform::classifyBlockDevice(makedev(majorNumber, minorNumber), root);
    return std::make_tuple(found.isRemovable, found.isEjectable, found.isInternal);
  };
  using Flags = std::tuple<std::optional<bool>, std::optional<bool>, std::optional<bool>>;
  EXPECT_EQ(kind(8, 0), Flags(false, false, true)) << "a SATA disk";
  EXPECT_EQ(kind(8, 17), Flags(true, true, false)) << "a partition of a USB disk";
  EXPECT_EQ(kind(179, 1), Flags(true, true, false)) << "an SD card";
  EXPECT_EQ(kind(11, 0), Flags(true, true, false)) << "removable media";
  EXPECT_EQ(kind(7, 3), Flags(false, true, false)) << "a disk image";
  EXPECT_EQ(kind(0, 42), Flags(std::nullopt, std::nullopt, std::nullopt)) << "no device: tmpfs, overlay";
}

TEST(VolumeListingTest, AMountedDiskIsListedDescribedAndRemountedExactlyWhereAsked) {
  CORVANE_LOOP_DISK(disk, "Photos 2024");
  TemporaryDirectory work;
  const std::string mounted = work.child("Volumes/Photos 2024");
  makeDirectories(work.child("Volumes"));
  disk->mount(mounted);

  const auto volumes = platform::mountedVolumes();
  const auto listed = std::find_if(volumes.begin(), volumes.end(), [&](const auto& v) { return v.path == mounted; });
  ASSERT_NE(listed, volumes.end());
  EXPECT_EQ(listed->deviceNode, disk->device());
  EXPECT_EQ(listed->fileSystemType, "ext4");
  EXPECT_EQ(listed->isEjectable, true);
  EXPECT_EQ(listed->isLocal, true);
  EXPECT_EQ(listed->isBrowsable, true);
  const auto proc = std::find_if(volumes.begin(), volumes.end(), [](const auto& v) { return v.path == "/proc"; });
  ASSERT_NE(proc, volumes.end());
  EXPECT_EQ(proc->isBrowsable, false);

  const auto description = platform::describeVolume(mounted + "/");
  platform::ProcessRequest blkid;
  blkid.executable = "blkid";
  blkid.arguments = {"-p", "-s", "UUID", "-o", "value", disk->device()};
  std::string uuid = platform::runProcess(blkid).standardOutput;
  uuid.erase(uuid.find_last_not_of('\n') + 1);
  EXPECT_EQ(description.uuid, uuid);
  EXPECT_EQ(description.label, "Photos 2024");
  EXPECT_EQ(description.fileSystemType, "ext4");

  EXPECT_TRUE(platform::isMountPoint(mounted));
  EXPECT_TRUE(platform::isMountPoint(mounted + "/"));
  makeDirectories(mounted + "/inside");
  EXPECT_FALSE(platform::isMountPoint(mounted + "/inside"));
  ASSERT_EQ(symlink(mounted.c_str(), work.child("link").c_str()), 0);
  EXPECT_FALSE(platform::isMountPoint(work.child("link")));
  EXPECT_EQ(platform::deviceNodeOf(mounted + "/inside"), disk->device());

  // Without udisks the administrator runner unmounts and mounts; a hostile name is only a name.
  auto runner = std::make_shared<ShellAdministratorRunner>();
  platform::VolumeMounter mounter({.udisksctl = "-", .administratorRunner = runner});
  EXPECT_EQ(mounter.unmount(disk->device()).exitStatus, 0);
  EXPECT_FALSE(platform::isMountPoint(mounted));
  const std::string hostile = work.child("Volumes/it's \"$(touch x)\" `y`");
  EXPECT_EQ(mounter.mount(disk->device(), hostile).exitStatus, 0);
  EXPECT_TRUE(platform::isMountPoint(hostile));
  EXPECT_NE(access(work.child("x").c_str(), F_OK), 0);
}

TEST(VolumeListingTest, DiskutilsPropertyListGivesUuidTypeAndName) {
  auto listing = [](const std::string& entries) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" + entries +
           "</dict>\n</plist>\n";
  };
  const auto named = platform::volumeDescriptionFromPropertyList(
      listing("<key>Ejectable</key><true/>\n<key>FilesystemName</key><string>APFS</string>\n"
              "<key>VolumeName</key><string>Backup</string>\n"
              "<key>VolumeUUID</key><string>0A81F3B1-51D9-3335-B3E3-169C3640360D</string>\n"));
  EXPECT_EQ(named.uuid, "0A81F3B1-51D9-3335-B3E3-169C3640360D");
  EXPECT_EQ(named.fileSystemType, "APFS") << "the name stands in for a missing type";
  EXPECT_EQ(named.label, "Backup");
  const auto typed = platform::volumeDescriptionFromPropertyList(
      listing("<key>FilesystemName</key><string>APFS</string>\n<key>FilesystemType</key><string>apfs</string>\n"
              "<key>VolumeUUID</key><integer>7</integer>\n"));
  EXPECT_EQ(typed.fileSystemType, "apfs");
  EXPECT_FALSE(typed.uuid) << "a value of another kind is absent";
  EXPECT_FALSE(platform::volumeDescriptionFromPropertyList("not a list").uuid);
}

}  // namespace
}  // namespace corvane
