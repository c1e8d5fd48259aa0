// Removes what a cleaner item covers and nothing else. Every entry is removed relative to an
// open descriptor of its own directory, directories are entered without following links and
// checked to be the ones listed, other volumes mounted inside are left alone, and a root that is
// a symbolic link (a folder moved to another disk) is emptied inside its target with the link
// kept. Failures do not stop the rest: they are collected and reported.
#pragma once

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "cleaner/clean_item.h"
#include "cleaner/cleaner_definition.h"

namespace corvane {

struct RemovalProblem {
  std::string path;
  int errnoValue = 0;     // 0: the entry changed while being cleaned, or is another volume
  std::string reasonKey;  // set when errnoValue is 0
};

struct RemovalReport {
  std::uint64_t removedEntries = 0;
  std::vector<RemovalProblem> problems;  // the first few; `problemCount` counts them all
  std::uint64_t problemCount = 0;
  bool cancelled = false;
};

class CleanerTreeRemoval {
 public:
  static constexpr std::uint64_t kCancellationStride = 1000;
  static constexpr std::size_t kKeptProblems = 20;

  explicit CleanerTreeRemoval(std::stop_token stop = {}) : stop_(std::move(stop)) {}

  // Cleans each expanded path that exists, as `cleaning` says; `excludedNames` directly inside
  // a root are kept.
  RemovalReport clean(const std::vector<std::string>& paths, PathCleaning cleaning,
                      const std::vector<std::string>& excludedNames = {}) const;

  // The same, reduced to what an item shows: nothing when everything went, else the failure.
  std::optional<CleanFailure> deleteDirectories(const std::vector<std::string>& paths, PathCleaning cleaning,
                                                const std::vector<std::string>& excludedNames = {}) const;

 private:
  std::stop_token stop_;
};

CleanFailure failureFromReport(const RemovalReport& report);

}  // namespace corvane
