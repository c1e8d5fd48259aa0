// Tells when a disk volume is mounted or unmounted. macOS: a DiskArbitration session scheduled
// on the run loop of the thread that creates the monitor (the main thread), with the appeared and
// disappeared callbacks. Linux: libmount's monitor (kernel mount table and userspace utab) on a
// thread of its own; each change re-reads the table and reports the difference from the previous
// one. Like DiskArbitration, only volumes mounted from a device (a block device under /dev) are
// reported, so pseudo and network file systems never appear.
//
// Error contract: the constructor throws PosixError when the system's watch cannot be set up.
// The handler must not throw.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace corvane::platform {

struct VolumeChange {
  enum class Kind { appeared, disappeared };
  Kind kind = Kind::appeared;
  std::string path;  // the volume's mount path, no trailing "/"
  // The disk's description as the appeared callback reads it; a missing value counts as false.
  // Not filled for a disappearance.
  std::optional<bool> isRemovable;
  std::optional<bool> isEjectable;
  std::optional<bool> isInternal;
};

class VolumeMonitor {
 public:
  using Handler = std::function<void(const VolumeChange&)>;

  // Starts watching at once. Linux calls `handler` on the monitor's thread; macOS on the run loop
  // of the creating thread. Volumes already mounted are not reported.
  explicit VolumeMonitor(Handler handler);
  // Stops watching; after it returns the handler is not called any more.
  ~VolumeMonitor();
  VolumeMonitor(const VolumeMonitor&) = delete;
  VolumeMonitor& operator=(const VolumeMonitor&) = delete;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace corvane::platform
