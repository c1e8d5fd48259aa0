// Hides a directory from the platform's file browsers. macOS keeps a hidden flag on the object
// (UF_HIDDEN); on Linux the leading dot in the name is the whole convention, so there is
// nothing to set.
//
// Error contract: throws PosixError when the flag cannot be read or changed.
#pragma once

#include <string>

namespace corvane::platform {

// Works on an open descriptor so that a name swapped for a link in between cannot redirect it.
void setHiddenFlag(int descriptor, const std::string& pathForErrors);

}  // namespace corvane::platform
