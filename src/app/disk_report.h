// What `corvane disks` shows about each accepted disk, gathered from the DiskManager's published
// state and the disk itself, as text or JSON.
#pragma once

#include <cstdint>
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

std::vector<DiskReport> reportDisks(DiskManager& manager);
void printDiskReports(const std::vector<DiskReport>& reports, bool json);
// One line per drifted link, for `list` as well.
void printDriftedLinks(const std::string& disk, const std::vector<DriftedLink>& links);

}  // namespace corvane
