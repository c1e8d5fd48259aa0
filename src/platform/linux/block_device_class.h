// Whether a block device is an external, removable or ejectable disk, read from sysfs: the
// device's node under /sys/dev/block is followed to its place in the device tree, and the tree is
// walked upwards. A USB, FireWire or MMC bus, or a `removable` flag of 1, makes it removable and
// external; a loop device (a mounted image) is ejectable and external; any other block device
// is internal. The sysfs root is a parameter so the walk can be tried on a tree of that shape.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace corvane::platform {

struct BlockDeviceClass {
  std::optional<bool> isRemovable;
  std::optional<bool> isEjectable;
  std::optional<bool> isInternal;  // absent: no block device behind it (tmpfs, overlay, ...)
};

BlockDeviceClass classifyBlockDevice(dev_t device, const std::string& sysfsRoot = "/sys");

}  // namespace corvane::platform
