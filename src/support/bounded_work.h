// Work that may block in the kernel for good (a look at a file on a network or FUSE mount that
// stopped answering) runs on a thread of its own and is waited for with a bound. Work that overruns
// is abandoned, not stopped: no thread can be made to leave a system call, so it runs on, detached,
// until the call returns, and what it produces is dropped. The work must therefore own everything
// it touches (capture by value) and change nothing the caller shares.
#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace corvane {

// Runs `work` on a detached thread; true when it finished within `deadline`. While a few abandoned
// runs are still stuck, new work is refused at once (false) rather than piling up threads that the
// same hung mount would stop too. Throws std::system_error when no thread can be started.
bool runDetachedWithin(std::chrono::milliseconds deadline, std::function<void()> work);

// The work's result, or nothing when it did not finish in time. An exception it throws in time is
// rethrown here.
template <typename Work>
std::optional<std::invoke_result_t<Work&>> runWithin(std::chrono::milliseconds deadline, Work work) {
  using Result = std::invoke_result_t<Work&>;
  struct Outcome {
    std::optional<Result> value;
    std::exception_ptr failure;
  };
  auto outcome = std::make_shared<Outcome>();
  const bool finished = runDetachedWithin(deadline, [outcome, work = std::move(work)]() mutable {
    try {
      outcome->value.emplace(work());
    } catch (...) {
      outcome->failure = std::current_exception();
    }
  });
  if (!finished) return std::nullopt;
  if (outcome->failure) std::rethrow_exception(outcome->failure);
  return std::move(outcome->value);
}

}  // namespace corvane
