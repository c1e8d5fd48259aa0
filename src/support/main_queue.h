// The owner thread's work queue: background tasks post results here, and the thread that owns
// published state runs them (the command line drains it; a desktop interface wakes on post).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

namespace corvane {

class MainQueue {
 public:
  using Work = std::function<void()>;

  // Any thread. The wake-up handler, when set, is called after the work was queued.
  void post(Work work);
  // Called from any thread whenever work arrives, so an event loop can schedule runPending().
  void setWakeUpHandler(std::function<void()> handler);

  // Owner thread: runs everything queued at this moment; returns how many pieces ran.
  std::size_t runPending();
  // Owner thread: runs work as it arrives until `finished()` holds (checked before waiting and
  // after each piece) or `limit` passes. True when `finished()` held.
  bool runUntil(const std::function<bool()>& finished, std::chrono::milliseconds limit);

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<Work> pending_;
  std::function<void()> wakeUp_;
};

}  // namespace corvane
