#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/linux/block_device_class.h"

namespace corvane::platform {
namespace {

namespace fs = std::filesystem;

bool isRemovableBus(const fs::path& directory) {
  std::error_code error;
  const fs::path subsystem = fs::read_symlink(directory / "subsystem", error);
  if (error) return false;
  const std::string bus = subsystem.filename().string();
  return bus == "usb" || bus == "firewire" || bus == "ieee1394" || bus == "mmc" || bus == "memstick";
}

bool removableFlagSet(const fs::path& directory) {
  std::ifstream flag(directory / "removable");
  char value = '0';
  return flag.get(value) && value == '1';
}

}  // namespace

BlockDeviceClass classifyBlockDevice(dev_t device, const std::string& sysfsRoot) {
  BlockDeviceClass result;
  if (major(device) == 0) return result;  // anonymous: no disk behind it
  const fs::path node =
      fs::path(sysfsRoot) / "dev/block" / (std::to_string(major(device)) + ":" + std::to_string(minor(device)));
  std::error_code error;
  const fs::path place = fs::canonical(node, error);
  if (error) return result;
  // "loop7" or its partition "loop7p1".
  const std::string name = place.filename().string();
  const std::string diskName = fs::exists(place / "partition") ? place.parent_path().filename().string() : name;
  if (diskName.rfind("loop", 0) == 0) return {false, true, false};

  bool removable = false;
  const fs::path root = fs::path(sysfsRoot) / "devices";
  for (fs::path directory = place; directory.string().size() > root.string().size();
       directory = directory.parent_path()) {
    if (removableFlagSet(directory) || isRemovableBus(directory)) {
      removable = true;
      break;
    }
  }
  return {removable, removable, !removable};
}

}  // namespace corvane::platform
