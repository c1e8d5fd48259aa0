#include "disks/ghost_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "platform/posix_error.h"

namespace corvane {
namespace {

constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct DirectoryStream {
  explicit DirectoryStream(int fd) : stream(fdopendir(fd)) {
    if (stream == nullptr) ::close(fd);
  }
  ~DirectoryStream() {
    if (stream != nullptr) closedir(stream);
  }
  DirectoryStream(const DirectoryStream&) = delete;
  DirectoryStream& operator=(const DirectoryStream&) = delete;
  DIR* stream;
};

bool isDotOrDotDot(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

class Measurer {
 public:
  explicit Measurer(GhostDirectoryContents& contents) : contents_(contents) {}

  // Walks the open directory `fd` (taken over) at `depth`; false once a limit stopped the walk.
  bool walk(int fd, int depth) {
    DirectoryStream directory(fd);
    if (directory.stream == nullptr) return true;
    while (dirent* entry = readdir(directory.stream)) {
      if (isDotOrDotDot(entry->d_name)) continue;
      if (contents_.entryCount >= GhostDirectoryContents::kEntryCountLimit) return stop();
      ++contents_.entryCount;
      if (depth == 0 && contents_.firstNames.size() < GhostDirectoryContents::kFirstNamesShown)
        contents_.firstNames.emplace_back(entry->d_name);
      struct stat status {};
      if (fstatat(dirfd(directory.stream), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
      if (S_ISREG(status.st_mode)) {
        contents_.totalBytes += status.st_size;
      } else if (S_ISDIR(status.st_mode) && status.st_dev == contents_.device) {
        if (depth + 1 >= GhostDirectoryContents::kDepthLimit) return stop();
        const int child = openat(dirfd(directory.stream), entry->d_name, kOpenDirectory);
        if (child >= 0 && !walk(child, depth + 1)) return false;
      }
    }
    return true;
  }

 private:
  bool stop() {
    contents_.countIsIncomplete = true;
    return false;
  }
  GhostDirectoryContents& contents_;
};

}  // namespace

GhostDirectoryContents measureGhostDirectory(const std::string& path) {
  const int fd = open(path.c_str(), kOpenDirectory);
  if (fd < 0) platform::throwErrno(path);
  GhostDirectoryContents contents;
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    const int error = errno;
    ::close(fd);
    platform::throwErrno(error, path);
  }
  contents.device = status.st_dev;
  contents.inode = status.st_ino;
  Measurer(contents).walk(fd, 0);
  return contents;
}

bool isSameGhostDirectory(const std::string& path, const GhostDirectoryContents& confirmed) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_dev == confirmed.device &&
         status.st_ino == confirmed.inode;
}

}  // namespace corvane
