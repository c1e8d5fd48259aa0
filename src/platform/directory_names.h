// The names in an open directory, "." and ".." left out, read through a duplicate of the
// descriptor so the caller's own stays usable for lookups relative to it.
//
// Error contract: throws PosixError with `pathForErrors` when the listing cannot be read to its end.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::platform {

std::vector<std::string> directoryNames(int directory, const std::string& pathForErrors);

// The path (`path` joined with the names below it) of a folder whose name `matches`, found at
// any depth below the open `directory`, which `path` names; nothing when there is none. Links
// are never followed, and an entry that vanishes or is swapped for a non-folder while the
// search runs is passed over.
std::optional<std::string> findFolderBelow(int directory, const std::string& path,
                                           const std::function<bool(std::string_view name)>& matches);

}  // namespace corvane::platform
