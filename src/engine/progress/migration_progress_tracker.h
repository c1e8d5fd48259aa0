// Collects the counters that transfer workers report from any thread and samples them on a
// fixed 250 ms clock of its own, computing each item's transfer rate. Only copies leave it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine/manifest/migration_copy_workload.h"
#include "engine/progress/migration_item_progress.h"

namespace corvane {

class MigrationProgressTracker {
 public:
  using Sampled = std::function<void(std::vector<MigrationItemProgress>)>;
  static constexpr std::chrono::milliseconds kInterval{250};

  // Items in batch order; updates for any other name are ignored.
  explicit MigrationProgressTracker(std::vector<MigrationItemProgress> items);
  ~MigrationProgressTracker();
  MigrationProgressTracker(const MigrationProgressTracker&) = delete;
  MigrationProgressTracker& operator=(const MigrationProgressTracker&) = delete;

  // Samples now and then every 250 ms on the tracker's own worker, handing each sample to
  // `sampled` there. A second start replaces the first clock.
  void start(Sampled sampled);
  void stop();

  void setPhase(const std::string& name, MigrationItemProgress::Phase phase);
  void setMeasurable(const std::string& name, bool measurable);
  void scanned(const std::string& name, const std::string& path);
  void plan(const std::string& name, const MigrationCopyWorkload& workload);
  // Counters never move backwards and never pass their totals, whatever order reports arrive in.
  void copied(const std::string& name, std::int64_t bytes, std::int64_t entries, const std::string& path);
  void verified(const std::string& name, std::int64_t bytes, std::int64_t entries, const std::string& path);

  // The items in batch order with fresh rates; `now` in seconds from a monotonic clock.
  std::vector<MigrationItemProgress> sample(double now);
  std::vector<MigrationItemProgress> current() const;

  static double monotonicSeconds();

 private:
  template <typename Change>
  void update(const std::string& name, Change change);

  mutable std::mutex mutex_;
  std::vector<std::string> order_;
  std::map<std::string, MigrationItemProgress> items_;
  double lastTime_ = 0;
  bool firstSample_ = true;
  std::map<std::string, std::int64_t> lastBytes_;

  std::mutex clockMutex_;
  std::condition_variable clockSignal_;
  bool clockStopping_ = false;
  std::thread clock_;
};

}  // namespace corvane
