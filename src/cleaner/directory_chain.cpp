#include "cleaner/directory_chain.h"

#include <dirent.h>
#include <fcntl.h>

#include "platform/posix_error.h"

namespace corvane {

namespace {
constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

std::string childPath(const std::string& parent, const std::string& name) {
  return parent == "/" ? "/" + name : parent + "/" + name;
}
}  // namespace

platform::UniqueFd openDirectory(const std::string& path, FollowFinalLink follow) {
  const int flags = kDirectoryFlags | (follow == FollowFinalLink::refuse ? O_NOFOLLOW : 0);
  platform::UniqueFd fd(::open(path.c_str(), flags));
  if (!fd) platform::throwErrno(path);
  return fd;
}

DirectoryChain::DirectoryChain(platform::UniqueFd root, std::string rootPath) {
  const auto status = platform::statDescriptor(root.get(), rootPath);
  Level level;
  level.path = std::move(rootPath);
  level.inode = status.inode;
  level.device = status.device;
  level.fd = std::move(root);
  levels_.push_back(std::move(level));
}

platform::UniqueFd DirectoryChain::openChecked(int parent, const Level& level) const {
  platform::UniqueFd fd(::openat(parent, level.name.c_str(), kDirectoryFlags | O_NOFOLLOW));
  if (!fd) {
    // A link or a file now sits where the directory was listed.
    if (errno == ELOOP || errno == ENOTDIR || errno == ENOENT) throw Changed(level.path);
    platform::throwErrno(level.path);
  }
  const auto opened = platform::statDescriptor(fd.get(), level.path);
  if (opened.inode != level.inode || opened.device != level.device) throw Changed(level.path);
  return fd;
}

int DirectoryChain::current() {
  std::size_t open = levels_.size() - 1;
  while (!levels_[open].fd) --open;  // the root never closes
  for (std::size_t index = open + 1; index < levels_.size(); ++index) {
    levels_[index].fd = openChecked(levels_[index - 1].fd.get(), levels_[index]);
  }
  return levels_.back().fd.get();
}

void DirectoryChain::descend(const std::string& name, const platform::FileStatus& listed) {
  const int parent = current();
  Level level;
  level.name = name;
  level.path = childPath(levels_.back().path, name);
  level.inode = listed.inode;
  level.device = listed.device;
  level.fd = openChecked(parent, level);
  levels_.push_back(std::move(level));
  if (levels_.size() > kOpenLevels + 1) levels_[levels_.size() - 1 - kOpenLevels].fd.reset();
}

void DirectoryChain::ascend() {
  if (levels_.size() > 1) levels_.pop_back();
}

std::vector<std::string> DirectoryChain::listCurrent() {
  const int fd = current();
  // The stream gets a duplicate so closing it leaves the chain's descriptor open; rewinding
  // makes a second listing of the same descriptor start at the beginning.
  int listing = ::dup(fd);
  if (listing < 0) platform::throwErrno(currentPath());
  DIR* stream = ::fdopendir(listing);
  if (stream == nullptr) {
    const int saved = errno;
    ::close(listing);
    platform::throwErrno(saved, currentPath());
  }
  ::rewinddir(stream);
  std::vector<std::string> names;
  errno = 0;
  while (dirent* item = ::readdir(stream)) {
    const char* itemName = item->d_name;
    if (itemName[0] == '.' && (itemName[1] == '\0' || (itemName[1] == '.' && itemName[2] == '\0'))) continue;
    names.emplace_back(itemName);
    errno = 0;
  }
  const int saved = errno;
  ::closedir(stream);
  if (saved != 0) platform::throwErrno(saved, currentPath());
  return names;
}

}  // namespace corvane
