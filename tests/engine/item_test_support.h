// Helpers for the engine tests of one item: scans, entries and issue keys, a stand-in for the
// administrator dialog that runs the exact command text, and a tree copy made by the system's cp.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "engine/migration_entry.h"
#include "engine/migration_issue.h"
#include "platform/administrator_runner.h"

namespace corvane {

class TestVolume;

// A snapshot that allows runtime entries and skips the readable and removable checks.
MigrationManifest scanned(const std::string& root);
// The names directly inside `directory`, sorted.
std::vector<std::string> namesIn(const std::string& directory);
std::optional<MigrationEntry> entryAt(const std::string& path);
// The key of the MigrationIssue `action` throws, "" when it throws none.
std::string issueKeyOf(const std::function<void()>& action);

// Runs each command with /bin/sh -c, as pkexec would after a granted dialog, and keeps every
// command text. `beforeRun` lets a test change the world between writing a command and its run.
class ShellAdministratorRunner final : public platform::AdministratorRunner {
 public:
  platform::AdministratorResult run(const std::string& shellCommand) override;

  std::vector<std::string> commands;
  std::function<void(const std::string& command)> beforeRun;
};

// cp -a: hard links, links, modes, times and extended attributes kept.
void copyTree(const std::string& from, const std::string& to);
void remountReadOnly(const TestVolume& volume);

}  // namespace corvane
