#include "platform/no_follow_open.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/posix_error.h"

namespace corvane::platform {

UniqueFd openDirectoryNoFollow(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) throwErrno(path);
  return fd;
}

std::string readRegularFileNoFollow(int directoryDescriptor, const std::string& name, std::size_t limit,
                                    const std::string& pathForErrors) {
  // Non-blocking so that a FIFO planted under the name cannot stall the open.
  UniqueFd fd(::openat(directoryDescriptor, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) throwErrno(pathForErrors);
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) throwErrno(pathForErrors);
  if (S_ISDIR(status.st_mode)) throwErrno(EISDIR, pathForErrors);
  if (!S_ISREG(status.st_mode)) throwErrno(EINVAL, pathForErrors);
  if (status.st_size < 0 || static_cast<std::size_t>(status.st_size) > limit) throwErrno(EFBIG, pathForErrors);
  std::string contents;
  contents.reserve(static_cast<std::size_t>(status.st_size));
  char buffer[65536];
  while (true) {
    const ssize_t count = ::read(fd.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throwErrno(pathForErrors);
    if (count == 0) return contents;
    // The file may grow while it is read.
    if (contents.size() + static_cast<std::size_t>(count) > limit) throwErrno(EFBIG, pathForErrors);
    contents.append(buffer, static_cast<std::size_t>(count));
  }
}

}  // namespace corvane::platform
