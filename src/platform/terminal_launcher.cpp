#include "platform/terminal_launcher.h"

#include <sys/stat.h>
#include <unistd.h>

#include "support/apple_script.h"

namespace corvane::platform {
namespace {

struct KnownEmulator {
  const char* name;
  const char* runOption;  // what makes the emulator run the rest of its arguments as a command
};

// In order of preference: the distribution's chosen emulator first.
constexpr KnownEmulator kEmulators[] = {
    {"x-terminal-emulator", "-e"}, {"gnome-terminal", "--"}, {"konsole", "-e"},
    {"xfce4-terminal", "-x"},      {"xterm", "-e"},
};

std::optional<std::string> findExecutable(const std::string& name, const std::string& searchPath) {
  std::size_t start = 0;
  while (start <= searchPath.size()) {
    std::size_t end = searchPath.find(':', start);
    if (end == std::string::npos) end = searchPath.size();
    const std::string directory = searchPath.substr(start, end - start);
    // Only absolute directories: an empty or relative entry would mean the working directory.
    if (!directory.empty() && directory.front() == '/') {
      const std::string candidate = directory + "/" + name;
      struct stat status {};
      if (stat(candidate.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(candidate.c_str(), X_OK) == 0)
        return candidate;
    }
    start = end + 1;
  }
  return std::nullopt;
}

}  // namespace

std::string terminalAppleScript(const std::string& command) {
  return "tell application \"Terminal\"\n    activate\n    do script \"" + appleScriptQuoteEscape(command) +
         "\"\nend tell";
}

std::optional<std::vector<std::string>> terminalEmulatorCommand(const std::string& command,
                                                                const std::string& searchPath) {
  for (const auto& emulator : kEmulators) {
    if (auto path = findExecutable(emulator.name, searchPath))
      return std::vector<std::string>{*path, emulator.runOption, "/bin/sh", "-c", command};
  }
  return std::nullopt;
}

}  // namespace corvane::platform
