#include <CoreFoundation/CoreFoundation.h>
#include <sys/mount.h>

#include "platform/darwin/core_foundation_strings.h"
#include "platform/mounted_volumes.h"

namespace corvane::platform {
namespace {

// Absent when the value could not be read; the error's description goes to `failure`.
std::optional<bool> booleanValue(CFURLRef url, CFStringRef key, std::optional<std::string>& failure) {
  CFTypeRef value = nullptr;
  CFErrorRef error = nullptr;
  if (!CFURLCopyResourcePropertyForKey(url, key, &value, &error)) {
    if (error != nullptr) {
      CFStringRef description = CFErrorCopyDescription(error);
      failure = utf8String(description);
      CFRelease(description);
      CFRelease(error);
    } else {
      failure = "resource value unavailable";
    }
    return std::nullopt;
  }
  if (value == nullptr) return std::nullopt;
  const bool result = CFGetTypeID(value) == CFBooleanGetTypeID() && CFBooleanGetValue(static_cast<CFBooleanRef>(value));
  CFRelease(value);
  return result;
}

std::string pathOf(CFURLRef url) {
  char buffer[PATH_MAX];
  if (!CFURLGetFileSystemRepresentation(url, true, reinterpret_cast<UInt8*>(buffer), sizeof buffer)) return {};
  std::string path(buffer);
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

std::vector<MountedVolume> mountedVolumes() {
  const void* keys[] = {kCFURLVolumeIsRemovableKey, kCFURLVolumeIsEjectableKey, kCFURLVolumeIsInternalKey,
                        kCFURLVolumeIsLocalKey, kCFURLVolumeIsBrowsableKey};
  CFArrayRef wanted = CFArrayCreate(kCFAllocatorDefault, keys, 5, &kCFTypeArrayCallBacks);
  CFURLEnumeratorRef enumerator =
      CFURLEnumeratorCreateForMountedVolumes(kCFAllocatorDefault, kCFURLEnumeratorSkipInvisibles, wanted);
  CFRelease(wanted);
  std::vector<MountedVolume> volumes;
  if (enumerator == nullptr) return volumes;
  CFURLRef url = nullptr;
  CFErrorRef error = nullptr;
  CFURLEnumeratorResult step;
  while ((step = CFURLEnumeratorGetNextURL(enumerator, &url, &error)) != kCFURLEnumeratorEnd) {
    if (step != kCFURLEnumeratorSuccess) {
      if (error != nullptr) CFRelease(error);
      error = nullptr;
      continue;
    }
    MountedVolume volume;
    volume.path = pathOf(url);
    volume.isRemovable = booleanValue(url, kCFURLVolumeIsRemovableKey, volume.propertyError);
    volume.isEjectable = booleanValue(url, kCFURLVolumeIsEjectableKey, volume.propertyError);
    volume.isInternal = booleanValue(url, kCFURLVolumeIsInternalKey, volume.propertyError);
    volume.isLocal = booleanValue(url, kCFURLVolumeIsLocalKey, volume.propertyError);
    volume.isBrowsable = booleanValue(url, kCFURLVolumeIsBrowsableKey, volume.propertyError);
    struct statfs status {};
    if (statfs(volume.path.c_str(), &status) == 0) {
      volume.deviceNode = status.f_mntfromname;
      volume.fileSystemType = status.f_fstypename;
    }
    volumes.push_back(std::move(volume));
  }
  CFRelease(enumerator);
  return volumes;
}

}  // namespace corvane::platform
