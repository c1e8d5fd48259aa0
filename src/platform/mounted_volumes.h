// The mounted volumes as the system lists them, with what decides whether one may serve as an
// external disk. macOS: the file manager's mounted volumes with their resource values (hidden
// volumes skipped). Linux: libmount's table of this process; removable, ejectable and internal
// from sysfs, walking from the volume's device number (a USB, FireWire or MMC bus, or
// `removable` = 1, is removable; a loop device is ejectable, like a mounted disk image on macOS);
// network file systems are not local; pseudo file systems without a device are not browsable.
//
// Error contract: mountedVolumes() throws PosixError when the table itself cannot be read; a
// volume whose values cannot be read is listed with `propertyError` set.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvane::platform {

struct MountedVolume {
  std::string path;            // where it is mounted, no trailing "/"
  std::string deviceNode;      // the mounted-from name ("/dev/sdb1"); empty when not a device
  std::string fileSystemType;  // "ext4", "apfs", "vfat", ...
  // Absent when the system could not tell; the acceptance rule decides what absence means.
  std::optional<bool> isRemovable;
  std::optional<bool> isEjectable;
  std::optional<bool> isInternal;
  std::optional<bool> isLocal;
  std::optional<bool> isBrowsable;
  // Set when the values could not be read at all (the rescan logs it and goes on).
  std::optional<std::string> propertyError;
};

// Every mounted volume, in the system's order.
std::vector<MountedVolume> mountedVolumes();

}  // namespace corvane::platform
