// The questions the preflight asks the user: what to do about blockers, whether administrator
// rights may be used, and a notice when stopping git failed. Front ends implement it (the
// command line on the terminal); the engine calls it from its background thread.
#pragma once

#include <string>
#include <vector>

#include "engine/preflight/migration_runtime_blocker.h"

namespace corvane {

// stop: stop the git monitors and scan again; retry: scan again; later: defer the item.
enum class MigrationPreflightChoice { stop, retry, later };

// A question ready to show: every text already localized; the answer is a button's index.
struct MigrationPreflightQuestion {
  std::string title;
  std::string message;
  std::vector<std::string> buttons;  // in the order shown
};

class MigrationPreflightPrompter {
 public:
  virtual ~MigrationPreflightPrompter() = default;
  // Blocking: returns the user's answer about `blockers`.
  virtual MigrationPreflightChoice choose(const std::vector<MigrationRuntimeBlocker>& blockers) = 0;
  // Whether administrator rights may be used for the item at `path`.
  virtual bool authorize(const std::string& path) = 0;
  // A notice with one button.
  virtual void alert(const std::string& title, const std::string& message) = 0;
};

}  // namespace corvane
