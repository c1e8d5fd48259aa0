#include <sys/mount.h>
#include <sys/param.h>

#include <stdexcept>

#include "platform/posix_error.h"
#include "platform/process.h"
#include "platform/volume_description.h"
#include "platform/volume_property_list.h"

namespace corvane::platform {
namespace {

std::string withoutTrailingSlash(std::string path) {
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

VolumeDescription describeVolume(const std::string& volumePath) {
  ProcessRequest request;
  request.executable = "/usr/sbin/diskutil";
  request.arguments = {"info", "-plist", volumePath};
  const auto result = runProcess(request);
  if (!result.exit.succeeded()) throw std::runtime_error("diskutil info: " + result.standardError);
  return volumeDescriptionFromPropertyList(result.standardOutput);
}

bool isMountPoint(const std::string& path) {
  struct statfs status {};
  if (statfs(path.c_str(), &status) != 0) return false;
  return withoutTrailingSlash(path) == withoutTrailingSlash(status.f_mntonname);
}

std::optional<std::string> deviceNodeOf(const std::string& path) {
  struct statfs status {};
  if (statfs(path.c_str(), &status) != 0) return std::nullopt;
  return std::string(status.f_mntfromname);
}

}  // namespace corvane::platform
