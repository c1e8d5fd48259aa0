#include "platform/linux/block_device_class.h"
#include "platform/linux/mount_table.h"
#include "platform/mounted_volumes.h"

namespace corvane::platform {

std::vector<MountedVolume> mountedVolumes() {
  std::vector<MountedVolume> volumes;
  forEachMount([&](const MountRow& row) {
    MountedVolume volume;
    volume.path = row.target;
    volume.fileSystemType = row.fileSystemType;
    const bool fromDevice = row.source.rfind("/dev/", 0) == 0;
    if (fromDevice) volume.deviceNode = row.source;
    const auto kind = classifyBlockDevice(row.device);
    volume.isRemovable = kind.isRemovable;
    volume.isEjectable = kind.isEjectable;
    volume.isInternal = kind.isInternal;
    volume.isLocal = !row.isNetwork;
    // What a person would browse: a file system on a disk or an image, not the kernel's own.
    volume.isBrowsable = fromDevice || (!row.source.empty() && row.source.front() == '/' && !row.isNetwork);
    volumes.push_back(std::move(volume));
  });
  return volumes;
}

}  // namespace corvane::platform
