#include <CoreFoundation/CoreFoundation.h>
#include <DiskArbitration/DiskArbitration.h>

#include "platform/posix_error.h"
#include "platform/volume_monitor.h"

namespace corvane::platform {

struct VolumeMonitor::State {
  Handler handler;
  DASessionRef session = nullptr;
};

namespace {

std::optional<bool> flag(CFDictionaryRef description, CFStringRef key) {
  const void* value = CFDictionaryGetValue(description, key);
  if (value == nullptr || CFGetTypeID(value) != CFBooleanGetTypeID()) return std::nullopt;
  return CFBooleanGetValue(static_cast<CFBooleanRef>(value));
}

// The volume path of the disk's description; empty when it has none (not mounted).
std::string volumePath(CFDictionaryRef description) {
  const void* value = CFDictionaryGetValue(description, kDADiskDescriptionVolumePathKey);
  if (value == nullptr || CFGetTypeID(value) != CFURLGetTypeID()) return {};
  char buffer[PATH_MAX];
  if (!CFURLGetFileSystemRepresentation(static_cast<CFURLRef>(value), true, reinterpret_cast<UInt8*>(buffer),
                                        sizeof buffer))
    return {};
  std::string path(buffer);
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

void report(DADiskRef disk, void* context, VolumeChange::Kind kind) {
  const auto& handler = *static_cast<VolumeMonitor::Handler*>(context);
  CFDictionaryRef description = DADiskCopyDescription(disk);
  if (description == nullptr) return;
  VolumeChange change;
  change.kind = kind;
  change.path = volumePath(description);
  if (kind == VolumeChange::Kind::appeared) {
    change.isRemovable = flag(description, kDADiskDescriptionMediaRemovableKey);
    change.isEjectable = flag(description, kDADiskDescriptionMediaEjectableKey);
    change.isInternal = flag(description, kDADiskDescriptionDeviceInternalKey);
  }
  CFRelease(description);
  if (!change.path.empty()) handler(change);
}

void diskAppeared(DADiskRef disk, void* context) { report(disk, context, VolumeChange::Kind::appeared); }
void diskDisappeared(DADiskRef disk, void* context) { report(disk, context, VolumeChange::Kind::disappeared); }

}  // namespace

VolumeMonitor::VolumeMonitor(Handler handler) : state_(std::make_unique<State>()) {
  state_->handler = std::move(handler);
  state_->session = DASessionCreate(kCFAllocatorDefault);
  if (state_->session == nullptr) throwErrno(ENOMEM, "DiskArbitration");
  // The callbacks arrive on the run loop of the creating thread, the main thread.
  DASessionScheduleWithRunLoop(state_->session, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode);
  DARegisterDiskAppearedCallback(state_->session, nullptr, diskAppeared, &state_->handler);
  DARegisterDiskDisappearedCallback(state_->session, nullptr, diskDisappeared, &state_->handler);
}

VolumeMonitor::~VolumeMonitor() {
  DASessionUnscheduleFromRunLoop(state_->session, CFRunLoopGetCurrent(), kCFRunLoopDefaultMode);
  CFRelease(state_->session);
}

}  // namespace corvane::platform
