#include <blkid.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>

#include "platform/linux/mount_table.h"
#include "platform/posix_error.h"
#include "platform/volume_description.h"

namespace corvane::platform {
namespace {

std::string withoutTrailingSlash(std::string path) {
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

struct ProbeDeleter {
  void operator()(blkid_probe probe) const { blkid_free_probe(probe); }
};

std::optional<std::string> probeValue(blkid_probe probe, const char* name) {
  const char* value = nullptr;
  if (blkid_probe_lookup_value(probe, name, &value, nullptr) != 0 || value == nullptr) return std::nullopt;
  return std::string(value);
}

// Reading the device needs root; without it the cache and udev's links still know the values.
std::optional<std::string> cachedValue(const std::string& device, const char* name) {
  char* value = blkid_get_tag_value(nullptr, name, device.c_str());
  if (value == nullptr) return std::nullopt;
  std::string text(value);
  std::free(value);
  return text;
}

}  // namespace

VolumeDescription describeVolume(const std::string& volumePath) {
  char resolved[PATH_MAX];
  if (realpath(volumePath.c_str(), resolved) == nullptr) throwErrno(volumePath);
  const auto mount = mountHolding(resolved);
  if (!mount) throwErrno(ENOENT, volumePath);
  VolumeDescription description;
  description.fileSystemType = mount->fileSystemType;
  if (mount->source.rfind("/dev/", 0) != 0) return description;
  std::unique_ptr<std::remove_pointer_t<blkid_probe>, ProbeDeleter> probe(
      blkid_new_probe_from_filename(mount->source.c_str()));
  if (probe) {
    blkid_probe_enable_superblocks(probe.get(), 1);
    blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID | BLKID_SUBLKS_TYPE);
    if (blkid_do_safeprobe(probe.get()) == 0) {
      description.uuid = probeValue(probe.get(), "UUID");
      description.label = probeValue(probe.get(), "LABEL");
      if (auto type = probeValue(probe.get(), "TYPE")) description.fileSystemType = type;
      return description;
    }
  }
  description.uuid = cachedValue(mount->source, "UUID");
  description.label = cachedValue(mount->source, "LABEL");
  return description;
}

bool isMountPoint(const std::string& path) {
  const std::string candidate = withoutTrailingSlash(path);
  struct stat status {};
  // A link to a mount point is a link, whatever it leads to.
  if (lstat(candidate.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return false;
  char resolved[PATH_MAX];
  if (realpath(candidate.c_str(), resolved) == nullptr) return false;
  try {
    const auto mount = mountHolding(resolved);
    return mount && mount->target == resolved;
  } catch (const PosixError&) {
    return false;
  }
}

std::optional<std::string> deviceNodeOf(const std::string& path) {
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) == nullptr) return std::nullopt;
  try {
    const auto mount = mountHolding(resolved);
    if (!mount || mount->source.empty()) return std::nullopt;
    return mount->source;
  } catch (const PosixError&) {
    return std::nullopt;
  }
}

}  // namespace corvane::platform
