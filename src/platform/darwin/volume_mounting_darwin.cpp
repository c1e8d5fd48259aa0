#include "platform/process.h"
#include "platform/volume_mounting.h"

namespace corvane::platform {
namespace {

MountCommandResult diskutil(std::vector<std::string> arguments) {
  ProcessRequest request;
  request.executable = "/usr/sbin/diskutil";
  request.arguments = std::move(arguments);
  try {
    const auto result = runProcess(request);
    return {true, result.exit.succeeded() ? 0 : (result.exit.exitCode >= 0 ? result.exit.exitCode : 128),
            result.standardError.empty() ? result.standardOutput : result.standardError};
  } catch (const std::exception& error) {
    return {false, -1, error.what()};
  }
}

}  // namespace

VolumeMounter::VolumeMounter(Configuration configuration) : configuration_(std::move(configuration)) {}

MountCommandResult VolumeMounter::unmount(const std::string& deviceNode) {
  return diskutil({"unmount", "force", deviceNode});
}

// diskutil mounts the volume at "/Volumes/" plus its name, which is free again once the ghost
// folder is gone.
MountCommandResult VolumeMounter::mount(const std::string& deviceNode, const std::string&) {
  return diskutil({"mount", deviceNode});
}

}  // namespace corvane::platform
