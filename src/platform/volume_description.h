// What identifies a mounted volume: its UUID, file-system type and label, and the mount facts the
// drift repair needs. macOS: "/usr/sbin/diskutil info -plist PATH" ("VolumeUUID",
// "FilesystemType" else "FilesystemName", "VolumeName") and statfs (f_mntonname,
// f_mntfromname). Linux: libmount's table for the mount and its source, libblkid for UUID, type
// and label of that source.
//
// Error contract: describeVolume() throws PosixError (or std::runtime_error with the tool's
// complaint on macOS) when the volume cannot be examined; a value the volume does not have is
// absent. isMountPoint() and deviceNodeOf() never throw.
#pragma once

#include <optional>
#include <string>

namespace corvane::platform {

struct VolumeDescription {
  std::optional<std::string> uuid;            // as the system prints it
  std::optional<std::string> fileSystemType;  // "apfs", "ext4", "vfat", ...
  std::optional<std::string> label;
};

VolumeDescription describeVolume(const std::string& volumePath);

// True when `path` (one trailing "/" ignored) is where a file system is mounted.
bool isMountPoint(const std::string& path);
// The mounted-from name (a path under /dev) of the file system holding `path`; absent when it
// cannot be examined.
std::optional<std::string> deviceNodeOf(const std::string& path);

}  // namespace corvane::platform
