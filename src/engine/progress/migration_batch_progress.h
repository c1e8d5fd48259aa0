// Counts how the items of one batch ended. The first outcome reported for an item wins; late or
// duplicate reports are dropped.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>

namespace corvane {

class MigrationBatchProgress {
 public:
  enum class Outcome { succeeded, failed, skipped };

  struct Snapshot {
    std::int64_t succeeded = 0;
    std::int64_t failed = 0;
    std::int64_t skipped = 0;
    std::int64_t total = 0;
    bool operator==(const Snapshot&) const = default;
  };

  // `initiallySkipped` items were settled before the run began; they count as skipped.
  MigrationBatchProgress(std::int64_t itemCount, std::int64_t initiallySkipped = 0);

  bool finish(std::int64_t item, Outcome outcome);
  Snapshot snapshot() const;
  // Hands a snapshot to `deliver` (which posts it to the main thread).
  void publish(const std::function<void(Snapshot)>& deliver) const;

 private:
  mutable std::mutex mutex_;
  std::int64_t itemCount_;
  std::int64_t initiallySkipped_;
  std::map<std::int64_t, Outcome> outcomes_;
};

}  // namespace corvane
