#include <CoreFoundation/CoreFoundation.h>
#include <sys/mount.h>

#include "platform/posix_error.h"
#include "platform/volume.h"

namespace corvane::platform {
namespace {

bool booleanResource(CFURLRef url, CFStringRef key) {
  CFBooleanRef value = nullptr;
  if (!CFURLCopyResourcePropertyForKey(url, key, &value, nullptr) || value == nullptr) return false;
  const bool result = CFBooleanGetValue(value);
  CFRelease(value);
  return result;
}

}  // namespace

VolumeCapabilities volumeCapabilities(const std::string& directory) {
  struct statfs st {};
  if (statfs(directory.c_str(), &st) != 0) throwErrno(directory);
  CFURLRef url = CFURLCreateFromFileSystemRepresentation(nullptr, reinterpret_cast<const UInt8*>(directory.c_str()),
                                                         static_cast<CFIndex>(directory.size()), true);
  if (url == nullptr) throwErrno(EINVAL, directory);
  VolumeCapabilities capabilities;
  capabilities.symbolicLinks = booleanResource(url, kCFURLVolumeSupportsSymbolicLinksKey);
  capabilities.accessPermissions = booleanResource(url, kCFURLVolumeSupportsAccessPermissionsKey);
  CFRelease(url);
  return capabilities;
}

std::int64_t availableCapacity(const std::string& path) {
  CFURLRef url = CFURLCreateFromFileSystemRepresentation(nullptr, reinterpret_cast<const UInt8*>(path.c_str()),
                                                         static_cast<CFIndex>(path.size()), true);
  if (url == nullptr) throwErrno(EINVAL, path);
  CFNumberRef value = nullptr;
  std::int64_t bytes = -1;
  if (CFURLCopyResourcePropertyForKey(url, kCFURLVolumeAvailableCapacityKey, &value, nullptr) && value != nullptr) {
    CFNumberGetValue(value, kCFNumberSInt64Type, &bytes);
    CFRelease(value);
  }
  CFRelease(url);
  if (bytes < 0) {
    struct statfs st {};
    if (statfs(path.c_str(), &st) != 0) throwErrno(path);
    bytes = static_cast<std::int64_t>(st.f_bavail) * static_cast<std::int64_t>(st.f_bsize);
  }
  return bytes;
}

std::vector<std::string> mountPoints() {
  struct statfs* mounted = nullptr;
  const int count = getmntinfo(&mounted, MNT_NOWAIT);
  if (count <= 0) throwErrno("getmntinfo");
  std::vector<std::string> points;
  for (int index = 0; index < count; ++index) points.emplace_back(mounted[index].f_mntonname);
  return points;
}

}  // namespace corvane::platform
