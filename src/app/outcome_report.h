// The machine-readable account of what a command did to each item (`--json`): one object per
// item with the same fields whichever command ran, so a script reads migrate, back, restore and
// uninstall alike.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvane {

struct OutcomeReport {
  std::string source = {};   // where the item came from
  std::string target = {};   // where it went
  std::string outcome = {};  // "migrated", "movedBack", "failed", "deferred", …
  std::string message = {};  // the localized reason, empty when there is none
  std::optional<std::string> retainedOriginal = {};
  std::optional<std::string> leftBehind = {};
  bool recordSaved = true;
};

// Prints the reports as one JSON array on standard output.
void printOutcomeReports(const std::vector<OutcomeReport>& reports);

}  // namespace corvane
