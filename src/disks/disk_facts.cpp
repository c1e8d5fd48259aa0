#include "disks/disk_facts.h"

#include "platform/volume.h"
#include "platform/volume_description.h"
#include "support/diagnostic_log.h"

namespace corvane {
namespace {

void describe(DiskReport& report) {
  try {
    const auto description = platform::describeVolume(report.path);
    report.label = description.label;
    report.fileSystem = description.fileSystemType;
  } catch (const std::exception& error) {
    logDebug(std::string("describeVolume: ") + error.what());
  }
  try {
    report.freeBytes = platform::availableCapacity(report.path);
  } catch (const std::exception& error) {
    logDebug(std::string("availableCapacity: ") + error.what());
  }
}

}  // namespace

DiskFactsRequest DiskFactsRequest::from(const DiskManager& manager) {
  DiskFactsRequest request;
  request.disks = manager.externalDisks();
  request.destination = manager.destinationPath();
  request.ghostDisks = manager.ghostDisks();
  request.renamedDisks = manager.renamedDisks();
  request.volumesRoots = manager.volumesRoots();
  return request;
}

std::vector<DiskReport> describeDisks(const DiskFactsRequest& request, FstabManager& fstab) {
  std::vector<DiskReport> reports;
  for (const auto& path : request.disks) {
    DiskReport report;
    report.path = path;
    describe(report);
    report.isDestination = request.destination == path;
    report.isProtected = fstab.isDiskProtected(path);
    for (const auto& [ghostPath, disk] : request.ghostDisks) {
      if (disk != path) continue;
      report.expectedPath = ghostPath;
      report.ghost = fstab.describeGhostDirectory(ghostPath);
    }
    for (const auto& rename : request.renamedDisks)
      if (rename.currentPath == path) report.expectedPath = rename.expectedPath;
    report.driftedLinks = findDriftedLinks(path, request.volumesRoots);
    reports.push_back(std::move(report));
  }
  return reports;
}

std::vector<DiskReport> reportDisks(DiskManager& manager) {
  return describeDisks(DiskFactsRequest::from(manager), manager.fstab());
}

}  // namespace corvane
