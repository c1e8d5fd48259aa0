#include "disks/volume_acceptance.h"

#include <array>
#include <string_view>

namespace corvane {
namespace {

const char* truth(bool value) { return value ? "true" : "false"; }

}  // namespace

bool isExcludedVolumePath(const std::string& path) {
  static constexpr std::array<std::string_view, 4> kExcluded = {"/Volumes/com.apple.TimeMachine", "/.MobileBackups",
                                                                "/Library/Developer/CoreSimulator",
                                                                "/CoreSimulator/Volumes"};
  for (const auto excluded : kExcluded)
    if (path.find(excluded) != std::string::npos) return true;
  return false;
}

VolumeVerdict judgeScannedVolume(const platform::MountedVolume& volume, const VolumesRoots& roots) {
  if (isExcludedVolumePath(volume.path) || !roots.contains(volume.path)) return {};
  const bool isInternal = volume.isInternal.value_or(true);
  const bool isRemovable = volume.isRemovable.value_or(false);
  const bool isEjectable = volume.isEjectable.value_or(false);
  const bool isLocal = volume.isLocal.value_or(true);
  const bool isBrowsable = volume.isBrowsable.value_or(false);
  if (isLocal && isBrowsable && (!isInternal || isRemovable || isEjectable)) return {true, {}};
  return {false, std::string("⚠️ 磁盘被过滤: ") + volume.path + " (isInternal=" + truth(isInternal) +
                     ", isRemovable=" + truth(isRemovable) + ", isEjectable=" + truth(isEjectable) +
                     ", isLocal=" + truth(isLocal) + ", isBrowsable=" + truth(isBrowsable) + ")"};
}

VolumeVerdict judgeAppearedVolume(const platform::VolumeChange& change, const VolumesRoots& roots) {
  const bool isValidPath = roots.contains(change.path) && !isExcludedVolumePath(change.path);
  const bool isInternal = change.isInternal.value_or(false);
  const bool isRemovable = change.isRemovable.value_or(false);
  const bool isEjectable = change.isEjectable.value_or(false);
  if (isValidPath && (!isInternal || isRemovable || isEjectable)) return {true, {}};
  return {false, std::string("⚠️ 磁盘被过滤: ") + change.path + " (isInternal=" + truth(isInternal) +
                     ", isRemovable=" + truth(isRemovable) + ", isEjectable=" + truth(isEjectable) +
                     ", isValidPath=" + truth(isValidPath) + ")"};
}

}  // namespace corvane
