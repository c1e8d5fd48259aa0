#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "platform/item_processes.h"
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
    char target[PATH_MAX];
    const std::string exe = std::string("/proc/") + entry->d_name + "/exe";
    const ssize_t length = readlink(exe.c_str(), target, sizeof target - 1);
    if (length <= 0) continue;
    std::string path(target, static_cast<std::size_t>(length));
    // A program replaced on disk while running shows " (deleted)"; it still ran from there.
    const std::string deleted = " (deleted)";
    if (path.size() > deleted.size() && path.compare(path.size() - deleted.size(), deleted.size(), deleted) == 0) {
      path.resize(path.size() - deleted.size());
    }
    if (isSameOrDescendant(path, item)) found.push_back({static_cast<pid_t>(pid), path});
  }
  closedir(proc);
  return found;
}

}  // namespace corvane::platform
