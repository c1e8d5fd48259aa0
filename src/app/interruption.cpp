#include "app/interruption.h"

#include <signal.h>

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

}  // namespace corvane
