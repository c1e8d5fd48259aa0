#include "platform/item_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

namespace corvane::platform {

ItemLockOutcome lockItem(const std::string& path, UniqueFd& holder) {
  // A directory only: opening a FIFO or a device to lock it could block or have effects.
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) return ItemLockOutcome::notLockable;
  int result;
  do {
    result = ::flock(fd.get(), LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  if (result != 0) return errno == EWOULDBLOCK ? ItemLockOutcome::busy : ItemLockOutcome::notLockable;
  holder = std::move(fd);
  return ItemLockOutcome::locked;
}

}  // namespace corvane::platform
