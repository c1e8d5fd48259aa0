// Shows the progress of running items on the terminal: one line per active item, redrawn in
// place on a terminal and printed as plain lines (at most one per item per second, and on every
// change of phase) when the output is a file or a pipe.
#pragma once

#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "engine/progress/migration_item_progress.h"

namespace corvane {

class ProgressDisplay {
 public:
  enum class Style { redraw, plain };
  static Style styleFor(std::FILE* stream);

  ProgressDisplay(std::FILE* stream, Style style);
  ~ProgressDisplay();

  // Called with every sample (from the tracker's clock).
  void show(const std::vector<MigrationItemProgress>& items);
  // Removes the redrawn lines so ordinary output can follow.
  void clear();

  // The text of one item's line: name, phase, bytes or entries, rate and time left.
  static std::string describe(const MigrationItemProgress& item);

 private:
  std::FILE* stream_;
  Style style_;
  std::mutex mutex_;
  std::size_t drawnLines_ = 0;
  struct Shown {
    MigrationItemProgress::Phase phase;
    std::chrono::steady_clock::time_point at;
  };
  std::map<std::string, Shown> lastPlain_;
};

// A progress observer that shows each sample on `display` under the items' last path
// components.
std::function<void(const std::vector<MigrationItemProgress>&)> showingShortNames(ProgressDisplay& display);

}  // namespace corvane
