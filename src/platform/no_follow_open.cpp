#include "platform/no_follow_open.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/posix_error.h"
#include "support/descriptor_io.h"

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
  // The file may grow while it is read: the limit holds for what is read, not for the size.
  if (!readToEnd(fd.get(), contents, limit)) throwErrno(pathForErrors);
  return contents;
}

}  // namespace corvane::platform
