#include "support/update_activity.h"

namespace corvane {

UpdateActivity& UpdateActivity::shared() {
  static UpdateActivity instance;
  return instance;
}

void UpdateActivity::begin() {
  std::lock_guard lock(mutex_);
  ++pending_;
}

void UpdateActivity::end() {
  std::lock_guard lock(mutex_);
  if (pending_ > 0) --pending_;
}

bool UpdateActivity::beginOperation() {
  std::lock_guard lock(mutex_);
  if (installing_) return false;
  ++pending_;
  return true;
}

void UpdateActivity::setInstalling(bool installing) {
  std::lock_guard lock(mutex_);
  installing_ = installing;
}

int UpdateActivity::pending() const {
  std::lock_guard lock(mutex_);
  return pending_;
}

}  // namespace corvane
