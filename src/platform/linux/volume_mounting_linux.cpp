#include <unistd.h>

#include <cstdlib>

#include "platform/process.h"
#include "platform/volume_mounting.h"
#include "support/shell_quote.h"

namespace corvane::platform {
namespace {

using namespace std::chrono_literals;

std::string udisksctlIn(const std::string& configured) {
  if (configured == "-") return {};
  if (!configured.empty()) return configured;
  const char* path = std::getenv("PATH");
  std::string directories = path != nullptr ? path : "/usr/bin:/bin";
  std::size_t start = 0;
  while (start <= directories.size()) {
    std::size_t end = directories.find(':', start);
    if (end == std::string::npos) end = directories.size();
    const std::string candidate = directories.substr(start, end - start) + "/udisksctl";
    if (end > start && access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return {};
}

MountCommandResult runTool(const std::string& executable, std::vector<std::string> arguments) {
  ProcessRequest request;
  request.executable = executable;
  request.arguments = std::move(arguments);
  ProcessDeadlines deadlines;
  // udisks may ask polkit, which may ask the person at the desk.
  deadlines.exit = 5min;
  try {
    const auto result = runProcess(request, deadlines);
    return {true, result.exit.succeeded() ? 0 : (result.exit.exitCode >= 0 ? result.exit.exitCode : 128),
            result.standardError.empty() ? result.standardOutput : result.standardError};
  } catch (const std::exception& error) {
    return {false, -1, error.what()};
  }
}

MountCommandResult runAsAdministrator(AdministratorRunner* runner, const std::string& command) {
  if (runner == nullptr) return {false, -1, "no administrator runner"};
  try {
    const auto result = runner->run(command);
    const int status = result.outcome == AdministratorOutcome::succeeded ? 0 : 1;
    return {true, status, result.output};
  } catch (const std::exception& error) {
    return {false, -1, error.what()};
  }
}

}  // namespace

VolumeMounter::VolumeMounter(Configuration configuration) : configuration_(std::move(configuration)) {}

MountCommandResult VolumeMounter::unmount(const std::string& deviceNode) {
  if (const auto udisksctl = udisksctlIn(configuration_.udisksctl); !udisksctl.empty())
    return runTool(udisksctl, {"unmount", "--force", "-b", deviceNode});
  return runAsAdministrator(configuration_.administratorRunner.get(), "umount " + shellQuote(deviceNode));
}

MountCommandResult VolumeMounter::mount(const std::string& deviceNode, const std::string& expectedPath) {
  if (const auto udisksctl = udisksctlIn(configuration_.udisksctl); !udisksctl.empty())
    return runTool(udisksctl, {"mount", "-b", deviceNode});
  return runAsAdministrator(configuration_.administratorRunner.get(), "mkdir -p -- " + shellQuote(expectedPath) +
                                                                          " && mount " + shellQuote(deviceNode) + " " +
                                                                          shellQuote(expectedPath));
}

}  // namespace corvane::platform
