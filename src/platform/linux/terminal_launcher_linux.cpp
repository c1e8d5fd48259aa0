#include <chrono>
#include <cstdlib>
#include <exception>
#include <thread>

#include "platform/process.h"
#include "platform/terminal_launcher.h"
#include "support/diagnostic_log.h"

namespace corvane::platform {

void openTerminalAndRun(const std::string& command) {
  const char* searchPath = std::getenv("PATH");
  auto arguments = terminalEmulatorCommand(command, searchPath != nullptr ? searchPath : "/usr/bin:/bin");
  if (!arguments) {
    logError("No terminal emulator found (x-terminal-emulator, gnome-terminal, konsole, xfce4-terminal, xterm)");
    return;
  }
  ProcessRequest request;
  request.executable = arguments->front();
  request.arguments.assign(arguments->begin() + 1, arguments->end());
  request.outputLimit = 64 * 1024;
  try {
    auto child = ChildProcess::spawn(request);
    logInfo("Terminal started: " + request.executable);
    // The window stays as long as the user keeps it; a thread of its own waits for it so the
    // caller goes on at once and the emulator is reaped, never left a zombie.
    std::thread([child = std::move(child)]() mutable {
      while (!child.waitFor(std::chrono::hours(1))) {
      }
    }).detach();
  } catch (const std::exception& error) {
    logError(std::string("Terminal could not be started: ") + error.what());
  }
}

}  // namespace corvane::platform
