#include <libmount.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <map>
#include <thread>
#include <tuple>

#include "platform/linux/block_device_class.h"
#include "platform/linux/mount_table.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"
#include "platform/volume_monitor.h"
#include "support/diagnostic_log.h"

namespace corvane::platform {
namespace {

// The volumes a disk arbitrator would report: file systems mounted from a device.
std::map<std::pair<std::string, std::string>, MountRow> deviceMounts() {
  std::map<std::pair<std::string, std::string>, MountRow> mounts;
  forEachMount([&](const MountRow& row) {
    if (row.source.rfind("/dev/", 0) == 0) mounts.emplace(std::make_pair(row.target, row.source), row);
  });
  return mounts;
}

}  // namespace

struct VolumeMonitor::State {
  Handler handler;
  libmnt_monitor* monitor = nullptr;
  UniqueFd stop;
  // Read before the watch starts, so a disk mounted right after the constructor is a change.
  std::map<std::pair<std::string, std::string>, MountRow> known;
  std::jthread thread;

  ~State() {
    if (monitor != nullptr) mnt_unref_monitor(monitor);
  }

  void run() {
    pollfd watched[2] = {{mnt_monitor_get_fd(monitor), POLLIN, 0}, {stop.get(), POLLIN, 0}};
    while (true) {
      if (::poll(watched, 2, -1) < 0) {
        if (errno == EINTR) continue;
        logError("volume monitor: poll failed");
        return;
      }
      if (watched[1].revents != 0) return;
      // Drain every pending change; the table is then read once.
      while (mnt_monitor_next_change(monitor, nullptr, nullptr) == 0) {
      }
      std::map<std::pair<std::string, std::string>, MountRow> now;
      try {
        now = deviceMounts();
      } catch (const std::exception& error) {
        logWarning(std::string("volume monitor: ") + error.what());
        continue;
      }
      for (const auto& [key, row] : known) {
        if (now.count(key) == 0) handler({VolumeChange::Kind::disappeared, row.target, {}, {}, {}});
      }
      for (const auto& [key, row] : now) {
        if (known.count(key) != 0) continue;
        const auto kind = classifyBlockDevice(row.device);
        handler({VolumeChange::Kind::appeared, row.target, kind.isRemovable, kind.isEjectable, kind.isInternal});
      }
      known = std::move(now);
    }
  }
};

VolumeMonitor::VolumeMonitor(Handler handler) : state_(std::make_unique<State>()) {
  state_->handler = std::move(handler);
  state_->monitor = mnt_new_monitor();
  if (state_->monitor == nullptr) throwErrno(ENOMEM, "/proc/self/mountinfo");
  if (mnt_monitor_enable_kernel(state_->monitor, 1) != 0) throwErrno(EIO, "/proc/self/mountinfo");
  // The userspace table (utab) tells about mounts made through libmount with extra options; a
  // system without /run/mount simply has none.
  mnt_monitor_enable_userspace(state_->monitor, 1, nullptr);
  if (mnt_monitor_get_fd(state_->monitor) < 0) throwErrno(EIO, "/proc/self/mountinfo");
  state_->known = deviceMounts();
  state_->stop = UniqueFd(eventfd(0, EFD_CLOEXEC));
  if (!state_->stop) throwErrno("eventfd");
  state_->thread = std::jthread([state = state_.get()] { state->run(); });
}

VolumeMonitor::~VolumeMonitor() {
  const std::uint64_t one = 1;
  if (::write(state_->stop.get(), &one, sizeof one) < 0) logWarning("volume monitor: could not signal the stop");
  state_->thread.join();
}

}  // namespace corvane::platform
