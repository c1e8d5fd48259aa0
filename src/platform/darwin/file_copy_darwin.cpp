#include <copyfile.h>
#include <unistd.h>

#include <cerrno>

#include "platform/file_copy.h"
#include "platform/posix_error.h"

namespace corvane::platform {

void copyRegularFile(const std::string& from, const std::string& to) {
  if (copyfile(from.c_str(), to.c_str(), nullptr, COPYFILE_ALL | COPYFILE_EXCL | COPYFILE_NOFOLLOW) != 0) {
    const int saved = errno;
    // Whatever existed before is not ours to remove; a half-made copy is.
    if (saved != EEXIST) unlink(to.c_str());
    throwErrno(saved, to);
  }
}

void copyObjectMetadata(const std::string& from, const std::string& to) {
  // 0x000C0007: the object's ACL, stat information and extended attributes, no data.
  if (copyfile(from.c_str(), to.c_str(), nullptr, COPYFILE_ACL | COPYFILE_STAT | COPYFILE_XATTR | COPYFILE_NOFOLLOW) !=
      0) {
    throwErrno(to);
  }
}

}  // namespace corvane::platform
