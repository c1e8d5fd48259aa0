#include "ui/qt_main_queue.h"

#include <QCoreApplication>
#include <QMetaObject>

namespace corvane::ui {

QtMainQueueDriver::QtMainQueueDriver(MainQueue& queue) : queue_(queue), alive_(std::make_shared<MainQueue*>(&queue)) {
  // The application object lives longer than any window, so the wake-up may always be queued
  // on it; whether the queue is still there is decided on the GUI thread, which destroys it.
  queue_.setWakeUpHandler([alive = std::weak_ptr<MainQueue*>(alive_)] {
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [alive] {
          if (auto queue = alive.lock()) (*queue)->runPending();
        },
        Qt::QueuedConnection);
  });
  queue_.runPending();
}

QtMainQueueDriver::~QtMainQueueDriver() {
  queue_.setWakeUpHandler({});
  alive_.reset();
}

}  // namespace corvane::ui
