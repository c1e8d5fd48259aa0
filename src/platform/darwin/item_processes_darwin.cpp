#include <libproc.h>
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
  const int capacity = proc_listallpids(nullptr, 0);
  if (capacity <= 0) return found;
  std::vector<pid_t> pids(static_cast<std::size_t>(capacity) + 16);
  const int count = proc_listallpids(pids.data(), static_cast<int>(pids.size() * sizeof(pid_t)));
  for (int i = 0; i < count; ++i) {
    if (pids[i] == getpid()) continue;
    char path[PROC_PIDPATHINFO_MAXSIZE];
    if (proc_pidpath(pids[i], path, sizeof path) <= 0) continue;
    if (isSameOrDescendant(path, item)) found.push_back({pids[i], path});
  }
  return found;
}

}  // namespace corvane::platform
