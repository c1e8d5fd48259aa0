#include "engine/verify/migration_copy_read_ahead.h"

#include <fcntl.h>

#include "support/paths.h"

namespace corvane {

MigrationCopyReadAhead::MigrationCopyReadAhead(const std::string& destination, const MigrationManifest& manifest,
                                               const std::set<std::string>& skipped,
                                               const std::unordered_set<MigrationFileIdentity>& shared)
    : destination_(destination), manifest_(manifest), skipped_(skipped), shared_(shared), next_(manifest.begin()) {}

std::optional<platform::OpenedAhead> MigrationCopyReadAhead::take(const std::string& relativePath) {
  fill();
  auto opened = queue_.take(relativePath);
  // The freed place goes to the next file at once, so its read runs during this comparison.
  fill();
  return opened;
}

void MigrationCopyReadAhead::fill() {
  while (queue_.hasRoom() && next_ != manifest_.end()) {
    const auto& [relativePath, entry] = *next_++;
    if (entry.kind != MigrationEntry::Kind::regular || entry.size <= 0 || relativePath.empty()) continue;
    if (skipped_.contains(relativePath)) continue;
    if (shared_.contains(entry.identity()) && !groupsSeen_.insert(entry.identity()).second) continue;
    auto opened = platform::openAhead(AT_FDCWD, joinPath(destination_, relativePath), platform::kReadAheadFirstBytes,
                                      platform::CachedPages::drop);
    if (opened) queue_.push(relativePath, std::move(*opened));
  }
}

}  // namespace corvane
