#include "engine/progress/migration_progress_tracker.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace corvane {

MigrationProgressTracker::MigrationProgressTracker(std::vector<MigrationItemProgress> items) {
  for (auto& item : items) {
    order_.push_back(item.name);
    items_.insert_or_assign(item.name, std::move(item));
  }
}

MigrationProgressTracker::~MigrationProgressTracker() { stop(); }

double MigrationProgressTracker::monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void MigrationProgressTracker::start(Sampled sampled) {
  stop();
  {
    std::lock_guard lock(clockMutex_);
    clockStopping_ = false;
  }
  clock_ = std::thread([this, sampled = std::move(sampled)] {
    auto deadline = std::chrono::steady_clock::now();
    std::unique_lock lock(clockMutex_);
    while (!clockStopping_) {
      lock.unlock();
      auto items = sample(monotonicSeconds());
      if (sampled) sampled(std::move(items));
      lock.lock();
      deadline += kInterval;
      clockSignal_.wait_until(lock, deadline, [this] { return clockStopping_; });
    }
  });
}

void MigrationProgressTracker::stop() {
  {
    std::lock_guard lock(clockMutex_);
    clockStopping_ = true;
  }
  clockSignal_.notify_all();
  if (clock_.joinable() && clock_.get_id() != std::this_thread::get_id()) clock_.join();
}

template <typename Change>
void MigrationProgressTracker::update(const std::string& name, Change change) {
  std::lock_guard lock(mutex_);
  auto item = items_.find(name);
  if (item != items_.end()) change(item->second);
}

void MigrationProgressTracker::setPhase(const std::string& name, MigrationItemProgress::Phase phase) {
  update(name, [&](MigrationItemProgress& item) { item.phase = phase; });
}

void MigrationProgressTracker::setMeasurable(const std::string& name, bool measurable) {
  update(name, [&](MigrationItemProgress& item) { item.measurable = measurable; });
}

void MigrationProgressTracker::scanned(const std::string& name, const std::string& path) {
  update(name, [&](MigrationItemProgress& item) {
    item.phase = MigrationItemProgress::Phase::scanning;
    if (item.scannedEntries == std::numeric_limits<std::int64_t>::max()) std::abort();
    item.scannedEntries += 1;
    item.path = path;
  });
}

void MigrationProgressTracker::plan(const std::string& name, const MigrationCopyWorkload& workload) {
  update(name, [&](MigrationItemProgress& item) {
    item.totalBytes = workload.bytes;
    item.totalEntries = workload.entries;
    item.verificationBytes = workload.bytes;
  });
}

namespace {
std::int64_t advance(std::int64_t previous, std::int64_t reported, std::int64_t total) {
  return std::min(std::max(reported, previous), total);
}
}  // namespace

void MigrationProgressTracker::copied(const std::string& name, std::int64_t bytes, std::int64_t entries,
                                      const std::string& path) {
  update(name, [&](MigrationItemProgress& item) {
    item.copiedBytes = advance(item.copiedBytes, bytes, item.totalBytes);
    item.copiedEntries = advance(item.copiedEntries, entries, item.totalEntries);
    item.path = path;
  });
}

void MigrationProgressTracker::verified(const std::string& name, std::int64_t bytes, std::int64_t entries,
                                        const std::string& path) {
  update(name, [&](MigrationItemProgress& item) {
    item.verifiedBytes = advance(item.verifiedBytes, bytes, item.verificationBytes);
    item.verifiedEntries = advance(item.verifiedEntries, entries, item.totalEntries);
    item.path = path;
  });
}

std::vector<MigrationItemProgress> MigrationProgressTracker::sample(double now) {
  std::lock_guard lock(mutex_);
  const double dt = firstSample_ ? 0 : now - lastTime_;
  std::vector<MigrationItemProgress> result;
  result.reserve(order_.size());
  for (const auto& name : order_) {
    auto found = items_.find(name);
    if (found == items_.end()) continue;
    auto& item = found->second;
    auto last = lastBytes_.find(name);
    const std::int64_t previous = last == lastBytes_.end() ? item.copiedBytes : last->second;
    item.bytesPerSecond = 0;
    if (dt > 0 && item.measurable && item.phase == MigrationItemProgress::Phase::copying) {
      item.bytesPerSecond = static_cast<double>(std::max<std::int64_t>(0, item.copiedBytes - previous)) / dt;
    }
    lastBytes_[name] = item.copiedBytes;
    result.push_back(item);
  }
  lastTime_ = now;
  firstSample_ = false;
  return result;
}

std::vector<MigrationItemProgress> MigrationProgressTracker::current() const {
  std::lock_guard lock(mutex_);
  std::vector<MigrationItemProgress> result;
  for (const auto& name : order_) {
    if (auto found = items_.find(name); found != items_.end()) result.push_back(found->second);
  }
  return result;
}

}  // namespace corvane
