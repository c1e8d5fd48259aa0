#include "app/interruption.h"

#include <signal.h>

#include <chrono>

#include "app/progress_display.h"
#include "app/user_output.h"
#include "settings/localization.h"
#include "support/main_queue.h"

namespace corvane {
namespace {

std::atomic<bool> interruptionRequested{false};
struct sigaction previousInterrupt;
struct sigaction previousTerminate;

void onSignal(int) { interruptionRequested.store(true); }

}  // namespace

InterruptionGuard::InterruptionGuard() {
  interruptionRequested.store(false);
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, &previousInterrupt);
  sigaction(SIGTERM, &action, &previousTerminate);
}

InterruptionGuard::~InterruptionGuard() {
  sigaction(SIGINT, &previousInterrupt, nullptr);
  sigaction(SIGTERM, &previousTerminate, nullptr);
}

const std::atomic<bool>& InterruptionGuard::requested() { return interruptionRequested; }

void runUntilFinishedTellingAboutInterruption(MainQueue& mainQueue, ProgressDisplay& display,
                                              const std::function<bool()>& finished) {
  bool toldAboutInterruption = false;
  while (!finished()) {
    mainQueue.runUntil([&] { return finished() || (InterruptionGuard::requested() && !toldAboutInterruption); },
                       std::chrono::milliseconds(200));
    if (InterruptionGuard::requested() && !toldAboutInterruption) {
      toldAboutInterruption = true;
      display.clear();
      printErrorLine(localized("cli.migrate.interrupted"));
    }
  }
}

}  // namespace corvane
