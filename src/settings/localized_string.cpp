#include "settings/localized_string.h"

namespace corvane {

LocalizedString::LocalizedString(std::string key, LocalizationManager& manager)
    : key_(std::move(key)), manager_(manager), value_(manager.localized(key_)) {
  cancellable_ = manager_.observe([this](Language) { refresh(); });
}

std::string LocalizedString::value() const {
  std::lock_guard lock(mutex_);
  return value_;
}

void LocalizedString::onChange(std::function<void(const std::string&)> handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

void LocalizedString::refresh() {
  std::string text = manager_.localized(key_);
  std::function<void(const std::string&)> handler;
  {
    std::lock_guard lock(mutex_);
    value_ = text;
    handler = handler_;
  }
  if (handler) handler(text);
}

}  // namespace corvane
