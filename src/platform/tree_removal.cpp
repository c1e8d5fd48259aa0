// Plain POSIX, the same on every platform: each directory is opened without following links
// and its children are removed relative to that descriptor, so a directory swapped for a link
// during the removal is never entered.
#include "platform/tree_removal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "platform/directory_names.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"

namespace corvane::platform {
namespace {

void removeChildren(int directory, const std::string& path) {
  const std::vector<std::string> names = directoryNames(directory, path);

  for (const auto& name : names) {
    const std::string childPath = path + "/" + name;
    struct stat st {};
    if (fstatat(directory, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) continue;
      throwErrno(childPath);
    }
    if (S_ISDIR(st.st_mode)) {
      UniqueFd child(openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (!child) throwErrno(childPath);
      removeChildren(child.get(), childPath);
      child.reset();
      if (unlinkat(directory, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) throwErrno(childPath);
    } else if (unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT) {
      throwErrno(childPath);
    }
  }
}

}  // namespace

void removeTree(const std::string& path) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return;
    throwErrno(path);
  }
  if (!S_ISDIR(st.st_mode)) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) throwErrno(path);
    return;
  }
  UniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!directory) throwErrno(path);
  removeChildren(directory.get(), path);
  directory.reset();
  if (rmdir(path.c_str()) != 0 && errno != ENOENT) throwErrno(path);
}

}  // namespace corvane::platform
