// Ctrl-C (and SIGTERM) during a long operation: the first one asks the running work to stop
// and roll back; the program keeps running until the roll-back has finished.
#pragma once

#include <atomic>
#include <functional>

namespace corvane {

// Installs the handlers for the lifetime of the object and restores the previous ones after.
class InterruptionGuard {
 public:
  InterruptionGuard();
  ~InterruptionGuard();
  InterruptionGuard(const InterruptionGuard&) = delete;
  InterruptionGuard& operator=(const InterruptionGuard&) = delete;

  // Set once an interruption arrived; hand it to the work that should stop.
  static const std::atomic<bool>& requested();
};

class MainQueue;
class ProgressDisplay;

// Drains `mainQueue` until `finished` holds. The first interruption is acknowledged once on
// standard error (the progress line cleared first); the work itself decides how to stop.
void runUntilFinishedTellingAboutInterruption(MainQueue& mainQueue, ProgressDisplay& display,
                                              const std::function<bool()>& finished);

}  // namespace corvane
