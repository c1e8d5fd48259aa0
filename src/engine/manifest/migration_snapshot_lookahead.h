// The look the manifest walk takes at each object (its status, and a link's text), shared with a
// helper thread that takes the same looks at the far end of the folder being walked. The kernel
// work of a walk is almost all in these looks, and they depend on nothing but the name, so two
// cores answer them in about half the time while the walk itself stays one ordered pass.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/file_system.h"

namespace corvane {

// What one look found. A failure is kept rather than thrown, so that it is raised when the walk
// reaches the object, in the walk's order, whoever took the look.
struct SnapshotLook {
  std::optional<platform::FileStatus> status;  // absent: nothing by that name
  std::optional<std::string> linkText;
  std::exception_ptr failure;

  // fstatat(directory, name, AT_SYMLINK_NOFOLLOW), then readlinkat for a link.
  static SnapshotLook at(int directory, const std::string& name) noexcept;
};

class SnapshotLookahead {
 public:
  SnapshotLookahead();
  ~SnapshotLookahead();
  SnapshotLookahead(const SnapshotLookahead&) = delete;
  SnapshotLookahead& operator=(const SnapshotLookahead&) = delete;

  // The looks at names[begin, end), each relative to `directory`, which stays open for the
  // window's life. The walk asks for them in order with `at`; the helper works from the end.
  // Destroying the window waits for a look the helper is still taking, so nothing outlives it.
  class Window {
   public:
    Window(SnapshotLookahead& lookahead, int directory, const std::vector<std::string>& names, std::size_t begin,
           std::size_t end);
    ~Window();
    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    SnapshotLook& at(std::size_t index);

   private:
    friend class SnapshotLookahead;
    enum ChunkState : int { free, taken, done };

    void look(std::size_t chunk, int directory);
    std::size_t chunks() const { return states_.size(); }

    SnapshotLookahead& lookahead_;
    const int directory_;
    const std::vector<std::string>& names_;
    const std::size_t begin_;
    std::vector<SnapshotLook> looks_;
    std::vector<std::atomic<int>> states_;
    bool shared_ = false;
    unsigned serial_ = 0;
  };

 private:
  // False when no helper thread could be started.
  bool share(Window* window);
  void withdraw(Window* window);
  void helperLoop();
  bool claimWork(Window*& window, std::size_t& chunk);
  void waitUntilDone(const std::atomic<int>& state);

  const bool helped_;
  std::mutex mutex_;
  std::condition_variable workArrived_;
  std::vector<Window*> windows_;  // the folders being walked, innermost last
  std::atomic<bool> stopping_{false};
  std::atomic<unsigned> windowsShared_{0};  // each window shared takes the count as its serial
  // Bumped after each look the helper finishes; waiting on it rather than on a window's own
  // state means the helper never touches a window after marking its chunk done.
  std::atomic<unsigned> finished_{0};
  std::thread helper_;
};

}  // namespace corvane
