// Work the interface itself must do off the GUI thread (reading disks, records, sizes): it runs
// on a pool of its own, and its result comes back through the MainQueue to the GUI thread, only
// while the page that asked still exists. Destroying the runner waits for work under way, so
// nothing posts to a queue that is gone.
#pragma once

#include <QThreadPool>
#include <exception>
#include <functional>
#include <memory>
#include <optional>

#include "support/diagnostic_log.h"
#include "support/main_queue.h"

namespace corvane::ui {

class BackgroundRunner {
 public:
  explicit BackgroundRunner(MainQueue& queue) : queue_(queue) {}
  ~BackgroundRunner() { pool_.waitForDone(); }
  BackgroundRunner(const BackgroundRunner&) = delete;
  BackgroundRunner& operator=(const BackgroundRunner&) = delete;

  // `done` runs on the GUI thread while `owner` lives; a failed `work` is logged and `done` is
  // not called.
  template <typename Result>
  void run(std::weak_ptr<void> owner, std::function<Result()> work, std::function<void(Result)> done) {
    pool_.start([this, owner, work = std::move(work), done = std::move(done)]() mutable {
      std::optional<Result> result;
      try {
        result.emplace(work());
      } catch (const std::exception& failure) {
        logDebug(std::string("background work failed: ") + failure.what());
        return;
      }
      queue_.post([owner, done = std::move(done), result = std::move(result)]() mutable {
        if (owner.lock()) done(std::move(*result));
      });
    });
  }

 private:
  MainQueue& queue_;
  QThreadPool pool_;
};

}  // namespace corvane::ui
