// Helpers shared by the migration tests: a deferring prompter, stand-in scripts, tree manifests, staging checks.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "engine/item_test_support.h"
#include "engine/manifest/migration_entry.h"
#include "engine/migration_issue.h"
#include "engine/preflight/migration_preflight_prompter.h"
#include "engine/preflight/migration_tool_deadlines.h"

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
// Tool deadlines of a few hundred milliseconds for the length of a scope, so that a stand-in
// that hangs is ended at once instead of after the real bounds.
class ShortToolDeadlines {
 public:
  ShortToolDeadlines();
  ~ShortToolDeadlines();
  ShortToolDeadlines(const ShortToolDeadlines&) = delete;
  ShortToolDeadlines& operator=(const ShortToolDeadlines&) = delete;

 private:
  MigrationToolDeadlines saved_;
};

std::string writeScript(const std::string& directory, const std::string& name, const std::string& body);
// True once `pid` is gone and reaped (not even a zombie left).
bool processIsReaped(pid_t pid);
// Every entry's kind, mode, owner, size, mtime, links, data, target, xattrs, ACL and hard-link group: all a
// copy can keep (not inodes or change times).
std::map<std::string, std::string> fullManifest(const std::string& root);
// True when `directory` holds a ".corvane-…" or ".corvane_…" leftover of an operation.
bool hasStagingLeft(const std::string& directory);

}  // namespace corvane
