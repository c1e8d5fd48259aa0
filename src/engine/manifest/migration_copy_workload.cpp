#include "engine/manifest/migration_copy_workload.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace corvane {

MigrationCopyWorkload::MigrationCopyWorkload(const MigrationManifest& manifest,
                                             const std::set<std::string>& inactiveSockets) {
  // Each identity's size once: the files sorted by identity in one array, which goes back to the
  // system whole when done, rather than a hash set node per file left scattered in the heap.
  std::vector<std::pair<MigrationFileIdentity, std::int64_t>> files;
  for (const auto& [path, entry] : manifest) {
    if (entry.kind != MigrationEntry::Kind::regular) continue;
    const std::int64_t size = std::max<std::int64_t>(entry.size, 0);
    totalBytes += size;
    files.emplace_back(entry.identity(), size);
  }
  std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) {
    return a.first.device != b.first.device ? a.first.device < b.first.device : a.first.inode < b.first.inode;
  });
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (i == 0 || files[i].first != files[i - 1].first) bytes += files[i].second;
  }
  std::int64_t skipped = 0;
  for (const auto& socket : inactiveSockets) skipped += manifest.count(socket) ? 1 : 0;
  entries = static_cast<std::int64_t>(manifest.size()) - skipped;
}

}  // namespace corvane
