// Where this system keeps the applications a user may want to move: on macOS the bundles in
// /Applications and ~/Applications; on Linux every folder under /opt and ~/Applications.
//
// Error contract: never throws; it only names folders, which may not exist.
#pragma once

#include <string>
#include <vector>

namespace corvane::platform {

struct ApplicationFolder {
  std::string path;
  // Only entries named "<name>.app" are applications (macOS bundles); otherwise every folder.
  bool bundlesOnly = false;
};

std::vector<ApplicationFolder> applicationFolders(const std::string& homeDirectory);

}  // namespace corvane::platform
