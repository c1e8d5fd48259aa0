// What a front end shows about each accepted disk: label, file system, free space, destination
// mark, protection and drift findings. The state is taken from the DiskManager on its owner
// thread; the facts are then read from the disks on any thread (they wait on the disks).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "disks/disk_manager.h"
#include "disks/link_drift.h"

namespace corvane {

struct DiskReport {
  std::string path;
  std::optional<std::string> label;
  std::optional<std::string> fileSystem;
  std::optional<std::int64_t> freeBytes;
  bool isDestination = false;
  bool isProtected = false;
  // Where its records expect it, when it is mounted elsewhere; with the ghost folder's contents
  // when a folder of that name holds files.
  std::optional<std::string> expectedPath;
  std::optional<GhostDirectoryContents> ghost;
  std::vector<DriftedLink> driftedLinks;
};

// The manager's published state the reports need, copied on its owner thread.
struct DiskFactsRequest {
  std::vector<std::string> disks;
  std::optional<std::string> destination;
  std::map<std::string, std::string> ghostDisks;
  std::vector<RenameEvent> renamedDisks;
  VolumesRoots volumesRoots{{}};

  static DiskFactsRequest from(const DiskManager& manager);
};

// Any thread; `fstab` answers the protection and ghost questions.
std::vector<DiskReport> describeDisks(const DiskFactsRequest& request, FstabManager& fstab);
// Both steps at once, on the manager's owner thread.
std::vector<DiskReport> reportDisks(DiskManager& manager);

}  // namespace corvane
