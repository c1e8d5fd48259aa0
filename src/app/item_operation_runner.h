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

// 0 when it succeeded, 2 when it was deferred, 1 otherwise.
int runItemOperation(const ItemOperation& operation, const PromptOptions& prompts, ProgressLines progress);

}  // namespace corvane
