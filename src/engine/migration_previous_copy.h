// When an updater put a new real item where the link stood, the copy the record names is the
// item's previous version. It moves aside under a version name (base + "_backup_" + date) so the
// new item can take its place on the disk, and comes back when the new one never arrives.
#pragma once

#include <optional>
#include <string>

#include "catalogue/migrated_app.h"
#include "engine/manifest/migration_file_identity.h"

namespace corvane {

class MigrationPreviousCopy {
 public:
  // Renames the record's copy `target` on `disk` to its version name when the item at `source`
  // is a real object again and the copy is a real object the record alone names. Nothing when
  // either is not so; throws (nothing moved) when the copy fails the checks on what a record
  // names or cannot be renamed.
  static std::optional<MigrationPreviousCopy> retireIfReplaced(const MigratedApp& record, const std::string& source,
                                                               const std::string& target, const std::string& disk);

  const std::string& versionPath() const { return version_; }
  // The new item arrived: the previous copy stays a version. Returns its path.
  std::string keep();
  // The new item did not arrive: the previous copy goes back, if its place is still free and
  // it is still the object moved (otherwise it stays a version, which loses nothing).
  void putBack() noexcept;

 private:
  MigrationPreviousCopy(std::string target, std::string version, MigrationFileIdentity identity)
      : target_(std::move(target)), version_(std::move(version)), identity_(identity) {}

  std::string target_;
  std::string version_;
  MigrationFileIdentity identity_;
  bool settled_ = false;
};

}  // namespace corvane
