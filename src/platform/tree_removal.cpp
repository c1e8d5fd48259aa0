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
#include "support/paths.h"

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

// Removes `name` inside the open `directory`, a whole tree when it is a folder.
void removeEntry(int directory, const std::string& name, const std::string& path) {
  struct stat st {};
  if (fstatat(directory, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return;
    throwErrno(path);
  }
  if (!S_ISDIR(st.st_mode)) {
    if (unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT) throwErrno(path);
    return;
  }
  UniqueFd child(openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!child) throwErrno(path);
  removeChildren(child.get(), path);
  child.reset();
  if (unlinkat(directory, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) throwErrno(path);
}

}  // namespace

void removeTreeBelow(const std::string& root, const std::string& path) {
  const std::string top = standardizePath(root);
  const std::string item = standardizePath(path);
  if (item == top || !isSameOrDescendant(item, top)) throwErrno(EINVAL, item);
  const std::vector<std::string> components = pathComponents(item.substr(top == "/" ? 0 : top.size()));
  UniqueFd directory(open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) throwErrno(top);
  std::string reached = top;
  for (std::size_t index = 0; index + 1 < components.size(); ++index) {
    reached = joinPath(reached, components[index]);
    UniqueFd next(openat(directory.get(), components[index].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!next) {
      if (errno == ENOENT) return;
      throwErrno(reached);
    }
    directory = std::move(next);
  }
  removeEntry(directory.get(), components.back(), item);
}

void removeTree(const std::string& path) { removeEntry(AT_FDCWD, path, path); }

}  // namespace corvane::platform
