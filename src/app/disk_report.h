// What `corvane disks` shows about each accepted disk (disks/disk_facts.h), as text or JSON.
#pragma once

#include <string>
#include <vector>

#include "disks/disk_facts.h"

namespace corvane {

void printDiskReports(const std::vector<DiskReport>& reports, bool json);
// The destination refused a test write: what the user can do about it (there is no folder
// grant on the command line).
void printAccessProblem(const DiskManager& manager);
// One line per drifted link, for `list` as well.
void printDriftedLinks(const std::string& disk, const std::vector<DriftedLink>& links);

}  // namespace corvane
