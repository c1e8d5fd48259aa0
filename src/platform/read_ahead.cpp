#include "platform/read_ahead.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/posix_error.h"

namespace corvane::platform {

std::optional<OpenedAhead> openAhead(int directory, const std::string& name, std::int64_t length, CachedPages cached) {
  UniqueFd descriptor(openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!descriptor) return std::nullopt;
  FileStatus status;
  try {
    status = statDescriptor(descriptor.get(), name);
  } catch (const PosixError&) {
    return std::nullopt;
  }
  if (!S_ISREG(status.mode) || !adviseReadAhead(descriptor.get(), length, cached)) return std::nullopt;
  return OpenedAhead{std::move(descriptor), status};
}

}  // namespace corvane::platform
