// One batch of migrations on the command line, as `corvane migrate` runs it: the terminal's
// questions, a progress line per item, the log, Ctrl-C rolling back what is still copying.
// `corvane doctor` runs the same to move an item an updater put back in its link's place.
#pragma once

#include <string>
#include <vector>

#include "app/terminal_prompter.h"
#include "engine/migration_manager.h"

namespace corvane {

struct MigrationBatchRun {
  std::vector<std::string> paths;
  std::string disk;
  PromptOptions prompts;
  bool keepOriginal = false;
  // The log lines on standard output; off where the caller prints a report of its own.
  bool printLog = true;
};

std::vector<MigrationManager::ItemOutcome> runMigrationBatch(const MigrationBatchRun& run);

}  // namespace corvane
