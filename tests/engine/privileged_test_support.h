// Helpers for the verification, switch and access tests: a stand-in for the administrator
// dialog that runs the exact command text with /bin/sh (we are root already), a tree copy made
// by the system's cp, and damage done to a file's blocks on the device beneath the page cache.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "engine/migration_issue.h"
#include "platform/administrator_runner.h"

namespace corvane {

class TestVolume;

// Runs each command with /bin/sh -c, as pkexec would after a granted dialog, and keeps every
// command text it was given. `beforeRun` lets a test change the world between the moment a
// command was written and the moment it runs.
class ShellAdministratorRunner final : public platform::AdministratorRunner {
 public:
  platform::AdministratorResult run(const std::string& shellCommand) override;

  std::vector<std::string> commands;
  std::function<void(const std::string& command)> beforeRun;
};

// The key of the MigrationIssue `action` throws, "" when it throws none.
std::string issueKeyOf(const std::function<void()>& action);

// cp -a: hard links, links, modes, times and extended attributes kept.
void copyTree(const std::string& from, const std::string& to);

// Distinct, position-dependent bytes, so a run of them is found exactly once on a device.
std::string patternedBytes(std::size_t length, unsigned seed);

// Flushes the volume, finds `marker` in the image behind it and flips one of its bytes there,
// under the mounted file system, leaving the page cache untouched. True when found.
bool damageOnDevice(const TestVolume& volume, const std::string& marker);

// Whether `marker` is in the image behind the volume now, without flushing anything first.
bool deviceHolds(const TestVolume& volume, const std::string& marker);

// Remounts a volume read-only.
void remountReadOnly(const TestVolume& volume);

}  // namespace corvane
