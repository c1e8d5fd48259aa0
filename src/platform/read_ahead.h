// Reading many small files one after another waits on the medium once per file. Opening the
// next few ahead of their turn and asking for their first bytes lets those reads travel to the
// device together, while the files before them are still being worked on.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "platform/file_system.h"
#include "platform/unique_fd.h"

namespace corvane::platform {

// How far ahead a walk opens: enough files to keep the device busy, few enough descriptors for
// several items in flight, and no more bytes asked for than a few chunks of reading.
inline constexpr std::size_t kReadAheadFiles = 32;
inline constexpr std::int64_t kReadAheadBytes = std::int64_t{16} << 20;
// Only the beginning of each file is asked for; the kernel's own read-ahead streams the rest of
// a large file once reading reaches it.
inline constexpr std::int64_t kReadAheadFirstBytes = std::int64_t{1} << 20;

struct OpenedAhead {
  UniqueFd descriptor;
  FileStatus status;
};

enum class CachedPages { keep, drop };

// Opens `name` (relative to `directory`) for reading when it is a regular file: never through a
// link, never waiting on a FIFO. With `drop` its cached pages go first, so what arrives next comes
// from the medium. Then the first `length` bytes are requested without waiting for them. Absent
// when the name is not (or no longer) a regular file that opens; the caller then opens it itself
// and meets the reason there.
std::optional<OpenedAhead> openAhead(int directory, const std::string& name, std::int64_t length, CachedPages cached);

// The platform's part of the above, on a descriptor already known to be a regular file: false
// when the cached pages could not be dropped.
bool adviseReadAhead(int descriptor, std::int64_t length, CachedPages cached);

// The files opened ahead of a walk that takes them in increasing `Key` order; bounded in count
// and in bytes requested.
template <typename Key>
class ReadAheadQueue {
 public:
  bool hasRoom() const { return queue_.size() < kReadAheadFiles && requested_ < kReadAheadBytes; }
  std::size_t size() const { return queue_.size(); }

  void push(Key key, OpenedAhead opened) {
    const std::int64_t requested = std::min(opened.status.size, kReadAheadFirstBytes);
    requested_ += requested;
    queue_.push_back(Queued{std::move(key), std::move(opened), requested});
  }

  // The file opened for `key` when it is queued. Files queued before it were passed over by the
  // walk and are closed.
  std::optional<OpenedAhead> take(const Key& key) {
    while (!queue_.empty() && queue_.front().key < key) pop();
    if (queue_.empty() || !(queue_.front().key == key)) return std::nullopt;
    OpenedAhead opened = std::move(queue_.front().opened);
    pop();
    return opened;
  }

 private:
  struct Queued {
    Key key;
    OpenedAhead opened;
    std::int64_t requested;
  };

  void pop() {
    requested_ -= queue_.front().requested;
    queue_.pop_front();
  }

  std::deque<Queued> queue_;
  std::int64_t requested_ = 0;
};

}  // namespace corvane::platform
