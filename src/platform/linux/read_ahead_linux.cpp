#include <fcntl.h>

#include "platform/read_ahead.h"

namespace corvane::platform {

bool adviseReadAhead(int descriptor, std::int64_t length, CachedPages cached) {
  if (cached == CachedPages::drop && posix_fadvise(descriptor, 0, 0, POSIX_FADV_DONTNEED) != 0) return false;
  // Only a hint: a device that ignores it costs the reads their overlap, nothing else.
  if (length > 0) posix_fadvise(descriptor, 0, length, POSIX_FADV_WILLNEED);
  return true;
}

}  // namespace corvane::platform
