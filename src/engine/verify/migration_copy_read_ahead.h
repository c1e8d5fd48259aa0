// The verification reads every copied file back from the medium. This opens the copies of the
// next files it will compare ahead of their turn, drops what the cache holds of them and asks
// the device for their first bytes, so the reads overlap instead of queueing one by one. Every
// byte compared still comes from the medium.
#pragma once

#include <set>
#include <string>
#include <unordered_set>

#include "engine/manifest/migration_entry.h"
#include "engine/manifest/migration_file_identity.h"
#include "platform/read_ahead.h"

namespace corvane {

class MigrationCopyReadAhead {
 public:
  // `destination` is the copy's root; the manifest is walked in its own order, leaving out
  // `skipped` paths and every further name of a hard-link group (its data is compared once).
  // `shared` holds the identities that have more than one name.
  MigrationCopyReadAhead(const std::string& destination, const MigrationManifest& manifest,
                         const std::set<std::string>& skipped, const std::unordered_set<MigrationFileIdentity>& shared);

  // The copy of `relativePath`, opened ahead, when the walk reached it in manifest order.
  std::optional<platform::OpenedAhead> take(const std::string& relativePath);

 private:
  void fill();

  const std::string& destination_;
  const MigrationManifest& manifest_;
  const std::set<std::string>& skipped_;
  const std::unordered_set<MigrationFileIdentity>& shared_;
  MigrationManifest::const_iterator next_;
  platform::ReadAheadQueue<std::string> queue_;
  std::unordered_set<MigrationFileIdentity> groupsSeen_;
};

}  // namespace corvane
