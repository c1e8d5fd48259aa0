// Links that drifted with their disk: the disk is mounted at one path while some of its records
// (and the links they installed) name the same items under another mount path, one that is no
// longer a mount (a leftover folder, or nothing). Instead of remounting the disk, each such link
// and record can be pointed to where the disk is now.
#pragma once

#include <string>
#include <vector>

#include "catalogue/migrated_app.h"
#include "disks/volumes_roots.h"

namespace corvane {

struct DriftedLink {
  std::string recordId;
  std::string appName;
  std::string originalPath;    // the link
  std::string recordedVolume;  // the mount path the record names, no longer mounted
  std::string recordedTarget;  // where the record says the item is: under that path
  std::string currentTarget;   // the same item where the disk is mounted now
};

// The disk's records whose copy is named under another mount path of the same volume, where
// that path is no longer mounted and the copy exists at the same place under `disk`.
std::vector<DriftedLink> findDriftedLinks(const std::string& disk, const std::vector<MigratedApp>& records,
                                          const VolumesRoots& roots);
// Reads the disk's record file; no file or an unreadable one gives no findings.
std::vector<DriftedLink> findDriftedLinks(const std::string& disk, const VolumesRoots& roots);

struct RelinkOutcome {
  DriftedLink link;
  bool relinked = false;
  std::string failure;  // the localized reason when not relinked
};

// Points each drifted link and its record to where the disk is mounted now. A link is replaced
// only while it is still the link its record installed (or already points to the new place),
// by an atomic exchange whose displaced object is checked to be that link; then the record
// changes under the disk's record lock.
std::vector<RelinkOutcome> relinkDriftedLinks(const std::string& disk, const VolumesRoots& roots);

}  // namespace corvane
