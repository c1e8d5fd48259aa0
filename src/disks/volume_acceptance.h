// Which mounted volumes may serve as a migration destination: never a backup, snapshot or
// simulator volume; only volumes below a volumes root; and only external ones by their flags.
// The rescan and the appeared notification read different descriptions of a volume, so each has
// its own flag rule, and each refusal is logged with the values that decided it.
#pragma once

#include <string>

#include "disks/volumes_roots.h"
#include "platform/mounted_volumes.h"
#include "platform/volume_monitor.h"

namespace corvane {

// Time Machine, local snapshots and simulator runtimes, by plain substring.
bool isExcludedVolumePath(const std::string& path);

struct VolumeVerdict {
  bool accepted = false;
  std::string refusalLog;  // the log line when refused by the flags; empty otherwise
};

// The rescan: local (missing counts as local), browsable (missing counts as not), and external
// (not internal, or removable, or ejectable; missing internal counts as internal).
VolumeVerdict judgeScannedVolume(const platform::MountedVolume& volume, const VolumesRoots& roots);
// The appeared notification: a valid path and external; every missing flag counts as false.
VolumeVerdict judgeAppearedVolume(const platform::VolumeChange& change, const VolumesRoots& roots);

}  // namespace corvane
