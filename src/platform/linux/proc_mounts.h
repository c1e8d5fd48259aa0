// What /proc tells about mounts without touching any mounted file system: the mounts a process
// sees by mount id (/proc/<pid>/mountinfo), with the device number of each one's file system and
// its type, and the mount an open descriptor lies on (/proc/<pid>/fdinfo/<fd>). The process scans
// use them to decide which file systems they may look into, so that a network or FUSE mount that
// stopped answering is never asked anything.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace corvane::platform {

// Reads a whole /proc file below `directory` into `buffer`; false when it cannot be opened or read.
bool readProcFile(int directory, const char* name, std::string& buffer);

struct MountedFileSystem {
  dev_t device = 0;  // the file system's own device number, as /proc/<pid>/maps also gives it
  std::string type;  // "ext4", "nfs4", "fuse.sshfs", ...
};

class MountTable {
 public:
  // Adds the mounts of a mountinfo text.
  void add(std::string_view mountinfo);
  const MountedFileSystem* find(std::uint64_t mountId) const;

 private:
  std::unordered_map<std::uint64_t, MountedFileSystem> mounts_;
};

// Where an open descriptor lies, as its fdinfo text says: the "mnt_id:" line, and the "ino:" line
// that kernels from 5.14 on add (the inode number the kernel holds, not asked of the file system).
struct DescriptorPlace {
  std::uint64_t mountId = 0;
  std::optional<std::uint64_t> inode;
};

std::optional<DescriptorPlace> descriptorPlaceIn(std::string_view fdinfo);
// The place of descriptor `name`, from the fdinfo directory of its process; absent when fdinfo
// cannot be read (errno tells why) or names no mount.
std::optional<DescriptorPlace> descriptorPlaceAt(int fdinfoDirectory, const char* name);
// The mount that an open descriptor of this process lies on.
std::optional<std::uint64_t> mountIdOf(int fd);

}  // namespace corvane::platform
