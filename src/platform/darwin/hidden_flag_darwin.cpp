#include <sys/stat.h>
#include <unistd.h>

#include "platform/hidden_flag.h"
#include "platform/posix_error.h"

namespace corvane::platform {

void setHiddenFlag(int descriptor, const std::string& pathForErrors) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) throwErrno(pathForErrors);
  if ((status.st_flags & UF_HIDDEN) != 0) return;
  // The other flags (immutable, compressed...) are kept as they are.
  if (::fchflags(descriptor, status.st_flags | UF_HIDDEN) != 0) throwErrno(pathForErrors);
}

}  // namespace corvane::platform
