#include <libproc.h>
#include <sys/sysctl.h>

#include <cstring>
#include <vector>

#include "platform/process_details.h"

namespace corvane::platform {

std::optional<ProcessDetails> describeProcess(pid_t pid) {
  ProcessDetails details;
  char path[PROC_PIDPATHINFO_MAXSIZE];
  if (proc_pidpath(pid, path, sizeof path) <= 0) return std::nullopt;
  details.executablePath = path;

  // KERN_PROCARGS2: argc, the executable path, padding NULs, then argc NUL-terminated arguments.
  int request[3] = {CTL_KERN, KERN_PROCARGS2, pid};
  size_t size = 0;
  if (sysctl(request, 3, nullptr, &size, nullptr, 0) != 0 || size < sizeof(int)) return details;
  std::vector<char> buffer(size);
  if (sysctl(request, 3, buffer.data(), &size, nullptr, 0) != 0 || size < sizeof(int)) return details;
  int count = 0;
  std::memcpy(&count, buffer.data(), sizeof count);
  std::size_t position = sizeof count;
  while (position < size && buffer[position] != '\0') ++position;  // executable path
  while (position < size && buffer[position] == '\0') ++position;  // padding
  for (int index = 0; index < count && position < size; ++index) {
    const char* start = buffer.data() + position;
    const std::size_t length = strnlen(start, size - position);
    details.arguments.emplace_back(start, length);
    position += length + 1;
  }
  return details;
}

}  // namespace corvane::platform
