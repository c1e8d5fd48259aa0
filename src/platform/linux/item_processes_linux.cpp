#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "platform/item_processes.h"
#include "platform/linux/program_path.h"
#include "support/paths.h"

namespace corvane::platform {

std::vector<ItemProcess> processesExecutingWithin(const std::string& itemPath) {
  std::vector<ItemProcess> found;
  char resolvedItem[PATH_MAX];
  const std::string item = realpath(itemPath.c_str(), resolvedItem) ? resolvedItem : standardizePath(itemPath);
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return found;
  const pid_t self = getpid();
  while (dirent* entry = readdir(proc)) {
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    if (end == entry->d_name || *end != '\0' || pid == self) continue;
    const std::string path = programPathOf(std::string("/proc/") + entry->d_name);
    if (path.empty()) continue;
    if (isSameOrDescendant(path, item)) found.push_back({static_cast<pid_t>(pid), path});
  }
  closedir(proc);
  return found;
}

}  // namespace corvane::platform
