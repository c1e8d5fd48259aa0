// Finds disks mounted somewhere other than where their records say they belong, and tells a
// ghost directory (a folder of the expected name still holding files, which pushed the disk to
// another name) from a plain rename.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "catalogue/migrated_app.h"
#include "disks/fstab_manager.h"
#include "disks/volumes_roots.h"

namespace corvane {

// A disk that is mounted at `currentPath` while its records expect `expectedPath`, where
// nothing stands in the way of remounting it.
struct RenameEvent {
  std::string id;  // fresh per event
  std::string currentPath;
  std::string expectedPath;
  bool operator==(const RenameEvent&) const = default;
};

struct DriftFindings {
  std::vector<std::string> ghostPaths;
  std::vector<RenameEvent> renamedDisks;
  std::map<std::string, std::string> driftDisksMap;  // ghost path -> device node of the drifted disk
  std::map<std::string, std::string> ghostDisks;     // ghost path -> where its disk is mounted now
};

// The mount path most of the records' original paths name; absent when none names a volume.
// Only `originalPath` votes: items that came from the internal disk never name a volume.
std::optional<std::string> expectedVolumePath(const std::vector<MigratedApp>& records, const VolumesRoots& roots);

// Looks at each disk's record file; a disk whose file cannot be read is logged and skipped.
DriftFindings scanForDriftedDisks(const std::vector<std::string>& disks, const VolumesRoots& roots,
                                  const FstabManager& fstab);

}  // namespace corvane
