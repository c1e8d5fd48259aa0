// What the volume holding a directory can do, and how much room it has left.
//
// Error contract: throws PosixError when the directory cannot be examined.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace corvane::platform {

struct VolumeCapabilities {
  bool symbolicLinks = false;
  bool accessPermissions = false;
};

// macOS asks the volume's capability keys. Linux cannot tell FUSE volumes (FAT, exFAT, NTFS)
// apart by type, so it tries: in a hidden directory inside `directory` it creates a symbolic
// link and a file, changes the file's mode, reads both back and removes everything again.
VolumeCapabilities volumeCapabilities(const std::string& directory);

// Bytes an unprivileged writer can still use on the volume holding `path`.
std::int64_t availableCapacity(const std::string& path);

// Where every mounted file system is mounted, as the system's mount table says (macOS: the
// mounted file systems' list; Linux: this process's mountinfo through libmount).
std::vector<std::string> mountPoints();

}  // namespace corvane::platform
