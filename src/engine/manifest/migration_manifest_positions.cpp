#include "engine/manifest/migration_manifest_positions.h"

#include <algorithm>

namespace corvane {

MigrationManifestPositions::MigrationManifestPositions(const MigrationManifest& manifest) {
  keys_.reserve(manifest.size());
  for (const auto& [relativePath, entry] : manifest) keys_.push_back(&relativePath);
}

std::optional<std::size_t> MigrationManifestPositions::find(std::string_view relativePath) const {
  // The same order as the manifest's std::less<> on its keys.
  auto found = std::lower_bound(keys_.begin(), keys_.end(), relativePath,
                                [](const std::string* key, std::string_view path) { return *key < path; });
  if (found == keys_.end() || **found != relativePath) return std::nullopt;
  return static_cast<std::size_t>(found - keys_.begin());
}

}  // namespace corvane
