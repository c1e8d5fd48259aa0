#include "engine/manifest/migration_snapshot_lookahead.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <system_error>

#include "platform/unique_fd.h"

namespace corvane {
namespace {

// A chunk is what one side claims at a time: large enough that claiming costs nothing next to
// the looks, small enough that the two sides meet near the middle of a folder.
constexpr std::size_t kLooksPerChunk = 16;

// A walk shares a folder every few hundred microseconds, and waking a sleeping thread takes about
// as long as the looks it would help with; so the helper waits this long awake before sleeping.
constexpr auto kAwakeBetweenFolders = std::chrono::microseconds(300);

// Tells the core this thread is only polling, so it yields to the other hardware thread of the
// core instead of racing it.
void relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

}  // namespace

SnapshotLook SnapshotLook::at(int directory, const std::string& name) noexcept {
  SnapshotLook look;
  try {
    look.status = platform::statNoFollow(directory, name);
    if (look.status && S_ISLNK(look.status->mode)) look.linkText = platform::readLinkText(directory, name);
  } catch (...) {
    look.failure = std::current_exception();
  }
  return look;
}

// A single core gains nothing from a second thread, and small walks never start one: the helper
// is started by the first folder with more than one chunk of names.
SnapshotLookahead::SnapshotLookahead() : helped_(std::thread::hardware_concurrency() > 1) {}

SnapshotLookahead::~SnapshotLookahead() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  workArrived_.notify_all();
  if (helper_.joinable()) helper_.join();
}

bool SnapshotLookahead::share(Window* window) {
  if (!helper_.joinable()) {
    try {
      helper_ = std::thread([this] { helperLoop(); });
    } catch (const std::system_error&) {
      return false;  // no thread to spare: the walk looks at every name itself
    }
  }
  {
    std::lock_guard lock(mutex_);
    windows_.push_back(window);
    window->serial_ = windowsShared_.fetch_add(1, std::memory_order_release) + 1;
  }
  workArrived_.notify_one();
  return true;
}

void SnapshotLookahead::withdraw(Window* window) {
  {
    std::lock_guard lock(mutex_);
    std::erase(windows_, window);
  }
  // Claims are made under the lock, so from here on the helper can only be finishing a chunk it
  // already holds.
  for (auto& state : window->states_) waitUntilDone(state);
}

void SnapshotLookahead::waitUntilDone(const std::atomic<int>& state) {
  for (;;) {
    const unsigned seen = finished_.load(std::memory_order_acquire);
    const int now = state.load(std::memory_order_acquire);
    if (now != Window::taken) return;
    finished_.wait(seen, std::memory_order_acquire);
  }
}

// The innermost folder first, where the walk is heading next, and in each the last free chunk,
// furthest from where the walk is reading.
bool SnapshotLookahead::claimWork(Window*& window, std::size_t& chunk) {
  for (auto it = windows_.rbegin(); it != windows_.rend(); ++it) {
    for (std::size_t index = (*it)->chunks(); index-- > 0;) {
      int expected = Window::free;
      if ((*it)->states_[index].compare_exchange_strong(expected, Window::taken, std::memory_order_acq_rel)) {
        window = *it;
        chunk = index;
        return true;
      }
    }
  }
  return false;
}

void SnapshotLookahead::helperLoop() {
  // The helper looks through a descriptor of its own for each folder: two threads using one
  // descriptor would both count references on the same open file at every look.
  platform::UniqueFd own;
  unsigned ownSerial = 0;
  for (;;) {
    Window* window = nullptr;
    std::size_t chunk = 0;
    {
      std::unique_lock lock(mutex_);
      if (!claimWork(window, chunk)) {
        const unsigned seen = windowsShared_.load(std::memory_order_relaxed);
        lock.unlock();
        own.reset();
        ownSerial = 0;
        const auto awakeUntil = std::chrono::steady_clock::now() + kAwakeBetweenFolders;
        while (windowsShared_.load(std::memory_order_acquire) == seen && !stopping_.load(std::memory_order_relaxed) &&
               std::chrono::steady_clock::now() < awakeUntil) {
          relax();
        }
        lock.lock();
        workArrived_.wait(lock, [&] { return stopping_ || claimWork(window, chunk); });
      }
      if (window == nullptr) return;
    }
    if (window->serial_ != ownSerial) {
      own.reset(window->directory_ == AT_FDCWD ? -1
                                               : openat(window->directory_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      ownSerial = window->serial_;
    }
    window->look(chunk, own ? own.get() : window->directory_);
    window->states_[chunk].store(Window::done, std::memory_order_release);
    finished_.fetch_add(1, std::memory_order_release);
    finished_.notify_all();
  }
}

SnapshotLookahead::Window::Window(SnapshotLookahead& lookahead, int directory, const std::vector<std::string>& names,
                                  std::size_t begin, std::size_t end)
    : lookahead_(lookahead),
      directory_(directory),
      names_(names),
      begin_(begin),
      looks_(end - begin),
      states_((end - begin + kLooksPerChunk - 1) / kLooksPerChunk) {
  for (auto& state : states_) state.store(free, std::memory_order_relaxed);
  shared_ = lookahead_.helped_ && chunks() > 1 && lookahead_.share(this);
}

SnapshotLookahead::Window::~Window() {
  if (shared_) lookahead_.withdraw(this);
}

void SnapshotLookahead::Window::look(std::size_t chunk, int directory) {
  const std::size_t first = chunk * kLooksPerChunk;
  const std::size_t last = std::min(looks_.size(), first + kLooksPerChunk);
  for (std::size_t index = first; index < last; ++index)
    looks_[index] = SnapshotLook::at(directory, names_[begin_ + index]);
}

SnapshotLook& SnapshotLookahead::Window::at(std::size_t index) {
  const std::size_t offset = index - begin_;
  auto& state = states_[offset / kLooksPerChunk];
  // Most names fall in a chunk already looked at, where a plain read answers.
  int expected = state.load(std::memory_order_acquire);
  if (expected == free && state.compare_exchange_strong(expected, taken, std::memory_order_acq_rel)) {
    look(offset / kLooksPerChunk, directory_);
    state.store(done, std::memory_order_release);
  } else if (expected == taken) {
    lookahead_.waitUntilDone(state);
  }
  return looks_[offset];
}

}  // namespace corvane
