// The processes running a program that lies inside an item (an application being moved must
// not be running): on macOS the running applications' executables, on Linux every process whose
// executable lies inside the item. The caller's own process is never listed.
//
// Error contract: never throws; processes that cannot be inspected are left out.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace corvane::platform {

struct ItemProcess {
  pid_t pid = 0;
  std::string executablePath;
};

std::vector<ItemProcess> processesExecutingWithin(const std::string& itemPath);

}  // namespace corvane::platform
