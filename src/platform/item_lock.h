// Keeps two Corvane processes from working on one item at once: an exclusive advisory lock on
// the item's own directory, held for as long as the returned descriptor stays open. Nothing is
// created anywhere, so a lock left by a killed process ends with it.
//
// Error contract: never throws. An item that is not a directory, or that lies on a file system
// that cannot lock, is reported as notLockable: the caller goes on without the lock.
#pragma once

#include <string>

#include "platform/unique_fd.h"

namespace corvane::platform {

enum class ItemLockOutcome { locked, busy, notLockable };

// Takes the lock without waiting; on `locked`, `holder` keeps it.
ItemLockOutcome lockItem(const std::string& path, UniqueFd& holder);

}  // namespace corvane::platform
