#include "settings/resource_directory.h"

#include <sys/stat.h>

#include <cstdlib>

#include "platform/process.h"
#include "support/paths.h"

namespace corvane {
namespace {

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

std::optional<std::string> locateResourceDirectory() {
  // An explicit choice is taken as it is, even when it turns out not to hold any tables.
  if (const char* chosen = std::getenv("CORVANE_RESOURCES"); chosen != nullptr && *chosen != '\0') return chosen;
  try {
    const std::string beside = standardizePath(parentPath(platform::currentExecutablePath()) + "/../share/corvane");
    if (isDirectory(beside)) return beside;
  } catch (const std::exception&) {
    // Without the executable's path the compiled-in locations remain.
  }
  for (const char* candidate : {CORVANE_INSTALLED_RESOURCES, CORVANE_SOURCE_RESOURCES}) {
    if (isDirectory(candidate)) return candidate;
  }
  return std::nullopt;
}

}  // namespace corvane
