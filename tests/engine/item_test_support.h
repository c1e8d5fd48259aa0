// Helpers for the engine tests of one item: scans, entries and issue keys, a tree copied by the
// system's cp, and a volume made read-only.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engine/manifest/migration_entry.h"
#include "engine/migration_issue.h"

namespace corvane {

class TestVolume;

// A snapshot that allows runtime entries and skips the readable and removable checks.
MigrationManifest scanned(const std::string& root);
// The names directly inside `directory`, sorted.
std::vector<std::string> namesIn(const std::string& directory);
std::optional<MigrationEntry> entryAt(const std::string& path);
// Runs `body` and returns the issue it throws (an empty key when it throws none).
template <typename Body>
MigrationIssue issueOf(Body body) {
  try {
    body();
  } catch (const MigrationIssue& issue) {
    return issue;
  }
  return MigrationIssue("");
}
inline std::string issueKeyOf(const std::function<void()>& action) { return issueOf(action).key(); }

// cp -a: hard links, links, modes, times and extended attributes kept.
void copyTree(const std::string& from, const std::string& to);
void remountReadOnly(const TestVolume& volume);

}  // namespace corvane
