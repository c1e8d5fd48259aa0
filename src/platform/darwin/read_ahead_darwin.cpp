#include <fcntl.h>

#include <algorithm>
#include <climits>

#include "platform/read_ahead.h"

namespace corvane::platform {

bool adviseReadAhead(int descriptor, std::int64_t length, CachedPages cached) {
  // Reads through a descriptor that drops its cache bypass the cache from then on; asking for
  // them early would fill a cache they never use.
  if (cached == CachedPages::drop) return fcntl(descriptor, F_NOCACHE, 1) == 0;
  if (length > 0) {
    radvisory advice{};
    advice.ra_offset = 0;
    advice.ra_count = static_cast<int>(std::min<std::int64_t>(length, INT_MAX));
    fcntl(descriptor, F_RDADVISE, &advice);  // only a hint
  }
  return true;
}

}  // namespace corvane::platform
