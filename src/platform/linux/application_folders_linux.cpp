#include "platform/application_folders.h"

namespace corvane::platform {

std::vector<ApplicationFolder> applicationFolders(const std::string& homeDirectory) {
  return {{"/opt", false}, {homeDirectory + "/Applications", false}};
}

}  // namespace corvane::platform
