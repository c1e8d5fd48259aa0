// Unmounts a drifted volume and mounts it again, for the ghost-directory repair. macOS runs
// "/usr/sbin/diskutil" "unmount" "force" NODE and "mount" NODE. Linux uses `udisksctl` where it
// exists ("unmount --force -b NODE", "mount -b NODE", which mounts at the label's folder under
// /media/$USER), else runs umount/mount through the administrator runner, mounting at the path
// the volume's records expect.
//
// Error contract: never throws; a tool that could not be started is a result with `launched`
// false and the reason in `error`.
#pragma once

#include <memory>
#include <string>

#include "platform/administrator_runner.h"

namespace corvane::platform {

struct MountCommandResult {
  bool launched = false;
  int exitStatus = -1;  // 0 on success
  std::string error;    // why it could not be started, or what the tool said
};

class VolumeMounter {
 public:
  struct Configuration {
    // Linux: the udisksctl program; empty means "look for it in PATH", "-" means never use it.
    std::string udisksctl;
    std::shared_ptr<AdministratorRunner> administratorRunner;
  };
  explicit VolumeMounter(Configuration configuration);

  MountCommandResult unmount(const std::string& deviceNode);
  // `expectedPath` is where the volume belongs; macOS and udisksctl choose it themselves.
  MountCommandResult mount(const std::string& deviceNode, const std::string& expectedPath);

 private:
  Configuration configuration_;
};

}  // namespace corvane::platform
