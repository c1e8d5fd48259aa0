#include "support/bounded_work.h"

#include <fmt/format.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "support/diagnostic_log.h"

namespace corvane {
namespace {

// Beyond this many stuck workers the machine has a mount that does not answer; more threads would
// only join them.
constexpr int kMostStuckWorkers = 4;
std::atomic<int> gStuckWorkers{0};

struct Run {
  std::mutex mutex;
  std::condition_variable finished;
  bool done = false;
  bool abandoned = false;
};

}  // namespace

bool runDetachedWithin(std::chrono::milliseconds deadline, std::function<void()> work) {
  if (const int stuck = gStuckWorkers.load(); stuck >= kMostStuckWorkers) {
    logWarning(fmt::format("{} earlier workers are still stuck; new work is refused", stuck));
    return false;
  }
  auto run = std::make_shared<Run>();
  std::thread([run, work = std::move(work)] {
    try {
      work();
    } catch (...) {
      // The caller's work reports its own failures; nothing may escape a detached thread.
    }
    std::lock_guard lock(run->mutex);
    run->done = true;
    if (run->abandoned) --gStuckWorkers;
    run->finished.notify_all();
  }).detach();
  std::unique_lock lock(run->mutex);
  if (run->finished.wait_for(lock, deadline, [&] { return run->done; })) return true;
  run->abandoned = true;
  ++gStuckWorkers;
  return false;
}

}  // namespace corvane
