#include "engine/running_program_closer.h"

#include <signal.h>

#include <thread>

#include "platform/item_processes.h"

namespace corvane {

bool closeRunningPrograms(const std::string& itemPath, const std::vector<pid_t>& running,
                          std::chrono::milliseconds patience) {
  for (pid_t pid : running) ::kill(pid, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < deadline) {
    if (platform::processesExecutingWithin(itemPath).empty()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return platform::processesExecutingWithin(itemPath).empty();
}

}  // namespace corvane
