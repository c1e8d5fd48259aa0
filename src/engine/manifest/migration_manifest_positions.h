// Numbers the entries of a manifest in its own (sorted) order, so that what a later phase keeps
// per entry can live in a plain array beside the one shared manifest instead of in a second map
// holding a copy of every path.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/manifest/migration_entry.h"

namespace corvane {

class MigrationManifestPositions {
 public:
  MigrationManifestPositions() = default;
  // The manifest must outlive this object and stay unchanged.
  explicit MigrationManifestPositions(const MigrationManifest& manifest);

  std::size_t size() const { return keys_.size(); }
  // The manifest's key at `position`.
  const std::string& path(std::size_t position) const { return *keys_[position]; }
  // Where `relativePath` stands in the manifest; absent when it is not one of its keys.
  std::optional<std::size_t> find(std::string_view relativePath) const;

 private:
  std::vector<const std::string*> keys_;
};

}  // namespace corvane
