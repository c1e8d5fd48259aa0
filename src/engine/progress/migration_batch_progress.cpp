#include "engine/progress/migration_batch_progress.h"

#include <algorithm>

namespace corvane {

MigrationBatchProgress::MigrationBatchProgress(std::int64_t itemCount, std::int64_t initiallySkipped)
    : itemCount_(std::max<std::int64_t>(itemCount, 0)),
      initiallySkipped_(std::clamp<std::int64_t>(initiallySkipped, 0, std::max<std::int64_t>(itemCount, 0))) {}

bool MigrationBatchProgress::finish(std::int64_t item, Outcome outcome) {
  std::lock_guard lock(mutex_);
  if (item < 0 || item >= itemCount_) return false;
  return outcomes_.emplace(item, outcome).second;
}

MigrationBatchProgress::Snapshot MigrationBatchProgress::snapshot() const {
  std::lock_guard lock(mutex_);
  Snapshot result;
  result.total = itemCount_;
  result.skipped = initiallySkipped_;
  for (const auto& [item, outcome] : outcomes_) {
    switch (outcome) {
      case Outcome::succeeded:
        ++result.succeeded;
        break;
      case Outcome::failed:
        ++result.failed;
        break;
      case Outcome::skipped:
        ++result.skipped;
        break;
    }
  }
  return result;
}

void MigrationBatchProgress::publish(const std::function<void(Snapshot)>& deliver) const {
  if (deliver) deliver(snapshot());
}

}  // namespace corvane
