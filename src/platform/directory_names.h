// The names in an open directory, "." and ".." left out, read through a duplicate of the
// descriptor so the caller's own stays usable for lookups relative to it.
//
// Error contract: throws PosixError with `pathForErrors` when the listing cannot be read to its end.
#pragma once

#include <string>
#include <vector>

namespace corvane::platform {

std::vector<std::string> directoryNames(int directory, const std::string& pathForErrors);

}  // namespace corvane::platform
