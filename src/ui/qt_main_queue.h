// Drives the core's MainQueue from the Qt event loop: work posted from any thread wakes the GUI
// thread, which runs it between events, so managers publish on the thread that draws.
#pragma once

#include <memory>

#include "support/main_queue.h"

namespace corvane::ui {

class QtMainQueueDriver {
 public:
  // `queue` must outlive the driver.
  explicit QtMainQueueDriver(MainQueue& queue);
  // Wake-ups still in flight find the driver gone and run nothing.
  ~QtMainQueueDriver();
  QtMainQueueDriver(const QtMainQueueDriver&) = delete;
  QtMainQueueDriver& operator=(const QtMainQueueDriver&) = delete;

 private:
  MainQueue& queue_;
  std::shared_ptr<MainQueue*> alive_;
};

}  // namespace corvane::ui
