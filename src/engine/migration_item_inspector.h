// What a front end shows about items before moving them, without changing anything: whether
// each could be moved now (and what blocks it), and what moving one would involve. The command
// line and the desktop interface render these values; neither drives the preflight itself.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "engine/manifest/migration_copy_workload.h"
#include "engine/manifest/migration_entry.h"
#include "engine/preflight/migration_preflight.h"

namespace corvane {

class MigrationItemInspector {
 public:
  struct Readiness {
    enum class Verdict { movable, blocked, notFound, symbolicLink };
    std::string path;  // absolute and standardized
    Verdict verdict = Verdict::blocked;
    // Sockets nothing listens on: left out of the copy, never a blocker.
    std::set<std::string> inactiveSockets;
    // Each reason the item cannot move now, as the user reads it (a composed occupancy message
    // may span several lines).
    std::vector<std::string> blockingMessages;
  };

  struct Scan {
    std::string root;
    MigrationManifest manifest;
    MigrationCopyWorkload workload;
    std::int64_t hardLinkGroups = 0;
    // Links whose target must be rewritten to keep pointing where they did.
    std::map<std::string, std::string> relocatedLinks;
  };

  explicit MigrationItemInspector(MigrationPreflight::Services services = MigrationPreflight::defaultServices());

  // The preflight's scan, socket and pipe checks and the open-file check for each path (a
  // relative one is taken from the working directory); nothing is stopped and nothing is asked.
  std::vector<Readiness> checkItems(const std::vector<std::string>& paths) const;

  // The manifest of the item at `path` as the preflight takes it, with its totals. Throws
  // "error.item_not_found" when nothing is there, or what the walk throws.
  static Scan scanItem(const std::string& path);

 private:
  Readiness checkItem(const std::string& given) const;

  MigrationPreflight::Services services_;
};

}  // namespace corvane
