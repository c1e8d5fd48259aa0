#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "platform/linux/program_path.h"
#include "platform/process_details.h"
#include "platform/unique_fd.h"

namespace corvane::platform {

std::optional<ProcessDetails> describeProcess(pid_t pid) {
  const std::string directory = "/proc/" + std::to_string(pid);
  if (access(directory.c_str(), F_OK) != 0) return std::nullopt;
  ProcessDetails details;
  details.executablePath = programPathOf(directory);

  const std::string cmdline = directory + "/cmdline";
  UniqueFd fd(open(cmdline.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd) {
    std::string content;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = ::read(fd.get(), buffer, sizeof buffer)) > 0)
      content.append(buffer, static_cast<std::size_t>(count));
    std::size_t start = 0;
    while (start < content.size()) {
      auto end = content.find('\0', start);
      if (end == std::string::npos) end = content.size();
      details.arguments.push_back(content.substr(start, end - start));
      start = end + 1;
    }
  }
  return details;
}

}  // namespace corvane::platform
