// Rebuilds one wrong entry of a staged copy from its source, the single repair the verifier
// may make before checking the entry again.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "engine/manifest/migration_entry.h"

namespace corvane {

struct MigrationRepairRequest {
  std::string relativePath;
  std::string source;       // the original object
  std::string destination;  // the copy to rebuild
  MigrationEntry expected;  // the original's manifest entry
  // For a link: the text its copy must carry (relocated, or the original text).
  std::optional<std::string> linkTarget;
  // For a regular file whose hard-link group already has a verified copy: that copy's path.
  std::optional<std::string> hardLinkTo;
};

using MigrationRepair = std::function<void(const MigrationRepairRequest&)>;

class MigrationEntryRepair {
 public:
  // Removes the wrong copy (a directory that is still a directory keeps its children) and makes
  // it again: a regular file as a hard link to `hardLinkTo` or a fresh copy with its metadata,
  // a link with `linkTarget`, a directory's metadata, a FIFO recreated. Sockets and device
  // files cannot be rebuilt ("error.migration_copy_mismatch"). System failures throw
  // platform::PosixError.
  static void rebuild(const MigrationRepairRequest& request);
};

}  // namespace corvane
