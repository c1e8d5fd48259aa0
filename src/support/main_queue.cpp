#include "support/main_queue.h"

namespace corvane {

void MainQueue::post(Work work) {
  std::function<void()> wakeUp;
  {
    std::lock_guard lock(mutex_);
    pending_.push_back(std::move(work));
    wakeUp = wakeUp_;
  }
  arrived_.notify_all();
  if (wakeUp) wakeUp();
}

void MainQueue::setWakeUpHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  wakeUp_ = std::move(handler);
}

std::size_t MainQueue::runPending() {
  std::deque<Work> batch;
  {
    std::lock_guard lock(mutex_);
    batch.swap(pending_);
  }
  // Work may post more work; that waits for the next round so one call always ends.
  for (auto& work : batch) work();
  return batch.size();
}

bool MainQueue::runUntil(const std::function<bool()>& finished, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!finished()) {
    Work next;
    {
      std::unique_lock lock(mutex_);
      if (!arrived_.wait_until(lock, deadline, [this] { return !pending_.empty(); })) return finished();
      next = std::move(pending_.front());
      pending_.pop_front();
    }
    next();
  }
  return true;
}

}  // namespace corvane
