#include <chrono>
#include <cstdlib>
#include <exception>
#include <memory>
#include <thread>

#include "platform/process.h"
#include "platform/terminal_launcher.h"
#include "support/diagnostic_log.h"

namespace corvane::platform {

using namespace std::chrono_literals;

void openTerminalAndRun(const std::string& command) {
  // The window stays open after the command, so the person can read what it said.
  const std::string script = command + "; printf '\\n[Enter] '; read -r _";
  const char* searchPath = std::getenv("PATH");
  const auto arguments = terminalEmulatorCommand(script, searchPath != nullptr ? searchPath : "/usr/bin:/bin");
  if (!arguments) {
    logError("❌ No terminal emulator found to run the protection command");
    return;
  }
  ProcessRequest request;
  request.executable = arguments->front();
  request.arguments.assign(arguments->begin() + 1, arguments->end());
  request.outputLimit = 64 * 1024;
  try {
    auto child = std::make_shared<ChildProcess>(ChildProcess::spawn(request));
    logInfo("Running terminal command with length: " + std::to_string(command.size()));
    // The caller goes on at once; this thread reaps the emulator when its window closes, so it
    // is never left a zombie. The caller learns the effect by polling.
    std::thread([child] {
      while (!child->waitFor(1h)) {
      }
    }).detach();
  } catch (const std::exception& failure) {
    logError(std::string("❌ Terminal could not be started: ") + failure.what());
  }
}

}  // namespace corvane::platform
