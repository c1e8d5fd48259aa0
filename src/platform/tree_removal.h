// Removal of a whole tree that the engine itself made (a damaged entry of a staged copy),
// without ever following a symbolic link out of it.
//
// Error contract: PosixError with errno and the path that could not be removed. A path that
// does not exist is not an error.
#pragma once

#include <string>

namespace corvane::platform {

void removeTree(const std::string& path);

// Removes `path`, which must lie strictly below the folder `root`, reaching it from `root`
// through real folders only: each folder on the way is opened without following a link, so a
// link anywhere below `root` (planted, or swapped in meanwhile) fails the removal with ELOOP or
// ENOTDIR instead of leading it elsewhere. EINVAL when `path` does not lie below `root`.
void removeTreeBelow(const std::string& root, const std::string& path);

}  // namespace corvane::platform
