// Proves that a copy equals the scanned source before anything at the source changes, and that
// a source did not change since it was scanned.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "engine/manifest/migration_entry.h"
#include "engine/manifest/migration_snapshot.h"
#include "engine/verify/migration_entry_repair.h"

namespace corvane {

// Whether files that share one identity in the source must share one in the copy.
enum class HardLinkPolicy { preserve, ignore };

// Cumulative counts of a verification in progress: bytes compared (each file identity counted
// once) and entries checked, with the entry being checked.
struct MigrationVerificationProgress {
  std::int64_t bytes = 0;
  std::int64_t entries = 0;
  std::string relativePath;
};

struct MigrationVerificationOptions {
  HardLinkPolicy hardLinks = HardLinkPolicy::preserve;
  // Rebuilds a wrong entry once; empty means a mismatch fails at once. MigrationEntryRepair::rebuild
  // is the repair a migration uses.
  MigrationRepair repair;
  // Sockets left out of the copy: neither checked nor expected at the destination.
  std::set<std::string> inactiveSockets;
  // Rewritten link targets; worked out from the manifest when absent.
  std::optional<std::map<std::string, std::string>> relocated;
  // Whether the destination may hold more than the manifest: true when the question is only
  // whether everything the source holds is in the destination (before the source is deleted).
  bool destinationMayHoldMore = false;
  std::function<void(const MigrationVerificationProgress&)> progress;
  std::function<void(const std::string& relativePath)> checking;
  std::function<void(const std::string& relativePath)> repaired;
};

class MigrationIntegrityVerifier {
 public:
  using Visited = MigrationSnapshot::Visited;

  // MigrationSnapshot::walk, as every phase of a migration calls it.
  static MigrationManifest snapshot(const std::string& root, RuntimeEntries runtimeEntries, ReadableCheck readable,
                                    RemovableCheck removable, const Visited& visited = {});

  // Scans `source` again and throws "error.migration_source_changed" (with the source path)
  // when any entry appeared, vanished or differs from `manifest`.
  static void requireUnchanged(const std::string& source, const MigrationManifest& manifest,
                               const Visited& visited = {});

  // Refuses ("error.migration_overlapping_paths", with the destination) two locations that are
  // the same, or one inside the other, once links are resolved.
  static void validateLocations(const std::string& source, const std::string& destination);

  // Proves that `destination` is a complete copy of `source` as `manifest` describes it, reading
  // the copy back from the medium (flushed, its cached pages dropped), and that the source did
  // not change meanwhile. Throws MigrationIssue on the first entry that cannot be made equal:
  // "error.migration_overlapping_paths", "error.migration_source_changed",
  // "error.migration_copy_mismatch", "migration.preflight.runtime", or
  // "error.migration_entry_failed" wrapping any other failure. Every failure is logged first.
  static void verify(const std::string& source, const std::string& destination, const MigrationManifest& manifest,
                     const MigrationVerificationOptions& options);

  using BytesRead = std::function<void(std::int64_t chunkLength)>;
  // Whether the object at `destination` is a faithful copy of the manifest entry `expected`
  // whose original is at `source`: same kind; for a link the text `link` (the manifest's text
  // when absent); for a regular file the same size and mode and the same bytes, compared side by
  // side in 1 MiB chunks with the copy read from the medium. Throws
  // "error.migration_source_changed" when the source is no longer the scanned file.
  static bool matches(const std::string& source, const std::string& destination, const MigrationEntry& expected,
                      const std::optional<std::string>& link, const BytesRead& bytesRead = {});
};

}  // namespace corvane
