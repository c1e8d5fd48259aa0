// This process's mount table through libmount, for the volume listing, the monitor and the
// mount facts of a path. Shared by the Linux forms of the volume headers only.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace corvane::platform {

struct MountRow {
  std::string target;
  std::string source;  // the source path ("/dev/sdb1", an image file), empty for pseudo file systems
  std::string fileSystemType;
  dev_t device = 0;
  bool isNetwork = false;
};

// Calls `visit` for each mounted file system, in table order. Throws PosixError when the table
// cannot be read.
void forEachMount(const std::function<void(const MountRow&)>& visit);
// The mount whose target is the deepest prefix of the absolute path `path` (not resolved here).
std::optional<MountRow> mountHolding(const std::string& path);

}  // namespace corvane::platform
