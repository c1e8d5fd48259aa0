#include "engine/manifest/migration_copy_workload.h"

#include <algorithm>
#include <unordered_set>

namespace corvane {

MigrationCopyWorkload::MigrationCopyWorkload(const MigrationManifest& manifest,
                                             const std::set<std::string>& inactiveSockets) {
  std::unordered_set<MigrationFileIdentity> seen;
  for (const auto& [path, entry] : manifest) {
    if (entry.kind != MigrationEntry::Kind::regular) continue;
    const std::int64_t size = std::max<std::int64_t>(entry.size, 0);
    totalBytes += size;
    if (seen.insert(entry.identity()).second) bytes += size;
  }
  std::int64_t skipped = 0;
  for (const auto& socket : inactiveSockets) skipped += manifest.count(socket) ? 1 : 0;
  entries = static_cast<std::int64_t>(manifest.size()) - skipped;
}

}  // namespace corvane
