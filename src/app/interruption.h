// Ctrl-C (and SIGTERM) during a long operation: the first one asks the running work to stop
// and roll back; the program keeps running until the roll-back has finished.
#pragma once

#include <atomic>

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

}  // namespace corvane
