#include "platform/directory_names.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/posix_error.h"
#include "platform/unique_fd.h"

namespace corvane::platform {
namespace {

// A listing of its own, so reading it leaves the caller's descriptor and its offset alone.
DIR* openListing(int directory, const std::string& pathForErrors) {
  int listing = dup(directory);
  if (listing < 0) throwErrno(pathForErrors);
  DIR* stream = fdopendir(listing);
  if (stream == nullptr) {
    int saved = errno;
    close(listing);
    throwErrno(saved, pathForErrors);
  }
  return stream;
}

}  // namespace

std::vector<std::string> directoryNames(int directory, const std::string& pathForErrors) {
  DIR* stream = openListing(directory, pathForErrors);
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

std::optional<std::string> findFolderBelow(int directory, const std::string& path,
                                           const std::function<bool(std::string_view name)>& matches) {
  DIR* stream = openListing(directory, path);
  // The listing is closed before descending, so only one descriptor per level stays open.
  std::vector<std::string> folders;
  std::optional<std::string> found;
  errno = 0;
  while (dirent* item = readdir(stream)) {
    const std::string name = item->d_name;
    bool isFolder = item->d_type == DT_DIR;
    if (item->d_type == DT_UNKNOWN) {
      struct stat status {};
      isFolder = fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
    }
    if (isFolder && name != "." && name != "..") {
      if (matches(name)) {
        found = path + "/" + name;
        break;
      }
      folders.push_back(name);
    }
    errno = 0;
  }
  int saved = found ? 0 : errno;
  closedir(stream);
  if (saved != 0) throwErrno(saved, path);
  if (found) return found;
  for (const auto& name : folders) {
    const std::string childPath = path + "/" + name;
    UniqueFd child(openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!child) {
      if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) continue;
      throwErrno(childPath);
    }
    if (auto below = findFolderBelow(child.get(), childPath, matches)) return below;
  }
  return std::nullopt;
}

}  // namespace corvane::platform
