// Decides which symbolic links inside a tree must be rewritten when the tree moves to another
// disk: a relative link that climbs above the root would afterwards resolve next to the copy.
#pragma once

#include <map>
#include <string>

#include "engine/manifest/migration_entry.h"

namespace corvane {

class MigrationLinkPlan {
 public:
  // Relative path of each such link -> the absolute target its copy must carry: the original
  // target resolved from the link's original place.
  static std::map<std::string, std::string> relocatedTargets(const std::string& source,
                                                             const MigrationManifest& manifest);
};

}  // namespace corvane
