#include "platform/application_folders.h"

namespace corvane::platform {

std::vector<ApplicationFolder> applicationFolders(const std::string& homeDirectory) {
  return {{"/Applications", true}, {homeDirectory + "/Applications", true}};
}

}  // namespace corvane::platform
