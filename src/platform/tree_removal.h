// Removal of a whole tree that the engine itself made (a damaged entry of a staged copy),
// without ever following a symbolic link out of it.
//
// Error contract: PosixError with errno and the path that could not be removed. A path that
// does not exist is not an error.
#pragma once

#include <string>

namespace corvane::platform {

void removeTree(const std::string& path);

}  // namespace corvane::platform
