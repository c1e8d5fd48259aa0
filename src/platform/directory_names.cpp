#include "platform/directory_names.h"

#include <dirent.h>
#include <unistd.h>

#include "platform/posix_error.h"

namespace corvane::platform {

std::vector<std::string> directoryNames(int directory, const std::string& pathForErrors) {
  int listing = dup(directory);
  if (listing < 0) throwErrno(pathForErrors);
  DIR* stream = fdopendir(listing);
  if (stream == nullptr) {
    int saved = errno;
    close(listing);
    throwErrno(saved, pathForErrors);
  }
  std::vector<std::string> names;
  errno = 0;
  while (dirent* item = readdir(stream)) {
    const char* name = item->d_name;
    if (!(name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))) names.emplace_back(name);
    errno = 0;
  }
  int saved = errno;
  closedir(stream);
  if (saved != 0) throwErrno(saved, pathForErrors);
  return names;
}

}  // namespace corvane::platform
