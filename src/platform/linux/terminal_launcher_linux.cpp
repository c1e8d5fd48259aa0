#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "platform/process.h"
#include "platform/terminal_launcher.h"
#include "support/diagnostic_log.h"

namespace corvane::platform {
namespace {

using namespace std::chrono_literals;

std::string inPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  const std::string directories = path != nullptr ? path : "/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= directories.size()) {
    std::size_t end = directories.find(':', start);
    if (end == std::string::npos) end = directories.size();
    const std::string candidate = directories.substr(start, end - start) + "/" + name;
    if (end > start && access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return {};
}

}  // namespace

void openTerminalAndRun(const std::string& command) {
  // The window stays open after the command, so the person can read what it said.
  const std::string script = command + "; printf '\\n[Enter] '; read -r _";
  const std::pair<const char*, const char*> terminals[] = {{"x-terminal-emulator", "-e"},
                                                           {"gnome-terminal", "--"},
                                                           {"konsole", "-e"},
                                                           {"xfce4-terminal", "-x"},
                                                           {"xterm", "-e"}};
  for (const auto& [name, flag] : terminals) {
    const std::string terminal = inPath(name);
    if (terminal.empty()) continue;
    ProcessRequest request;
    request.executable = terminal;
    request.arguments = {flag, "/bin/sh", "-c", script};
    try {
      auto child = std::make_shared<ChildProcess>(ChildProcess::spawn(request));
      logInfo("Running terminal command with length: " + std::to_string(command.size()));
      // Reaped when the window closes; the caller learns the effect by polling.
      std::thread([child] {
        while (!child->waitFor(1h)) {
        }
      }).detach();
    } catch (const std::exception& failure) {
      logError(std::string("❌ Terminal could not be started: ") + failure.what());
    }
    return;
  }
  logError("❌ No terminal emulator found to run the protection command");
}

}  // namespace corvane::platform
