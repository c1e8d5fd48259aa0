// Runs one operation of MigrationManager on an already migrated item (move back, restore,
// uninstall) from the command line: prints its log lines as they come, shows progress, lets
// Ctrl-C stop a copy, and turns the outcome into the exit status.
#pragma once

#include <functional>

#include "app/terminal_prompter.h"
#include "engine/migration_manager.h"

namespace corvane {

enum class ProgressLines { show, hide };

using ItemOperation = std::function<void(MigrationManager& manager, MigrationManager::OperationCompletion completion)>;

// How the outcome is told: the log lines as they come, or with `json` one report at the end
// (the log lines are then left out of standard output).
struct ItemOperationReport {
  bool json = false;
  std::string source = {};
  std::string target = {};
  std::string succeededAs = {};  // the report's outcome when the operation succeeded
};

// 0 when it succeeded, 2 when it was deferred, 1 otherwise (a record that could not be changed
// with the item included).
int runItemOperation(const ItemOperation& operation, const PromptOptions& prompts, ProgressLines progress,
                     const ItemOperationReport& report);
// An operation that could not even start: its text, or its report with `json`. Returns 1.
int reportItemOperationFailure(const std::exception& failure, const ItemOperationReport& report);

}  // namespace corvane
