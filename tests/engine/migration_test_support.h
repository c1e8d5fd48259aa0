// Helpers shared by the migration tests: a deferring prompter, stand-in executables, a full
// description of a tree for before/after comparisons, and leftover-staging checks.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "engine/migration_entry.h"
#include "engine/migration_issue.h"
#include "engine/migration_preflight_prompter.h"

namespace corvane {

// Answers every question with "later" and never authorizes.
class DeferringPrompter final : public MigrationPreflightPrompter {
 public:
  MigrationPreflightChoice choose(const std::vector<MigrationRuntimeBlocker>&) override {
    return MigrationPreflightChoice::later;
  }
  bool authorize(const std::string&) override { return false; }
  void alert(const std::string&, const std::string&) override {}
};

// Writes `directory`/`name` as an executable shell script with `body` and returns its path.
std::string writeScript(const std::string& directory, const std::string& name, const std::string& body);
// True once `pid` is gone and reaped (not even a zombie left).
bool processIsReaped(pid_t pid);
MigrationManifest snapshotOf(const std::string& root);

// Every entry of a tree with kind, mode, owner, size, modification time, link count, data,
// link target, extended attributes, ACL presence and hard-link groups (not inode numbers or
// change times, which no copy can keep).
std::map<std::string, std::string> fullManifest(const std::string& root);
// True when `directory` holds a ".corvane-…" or ".corvane_…" leftover of an operation.
bool hasStagingLeft(const std::string& directory);

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

}  // namespace corvane
