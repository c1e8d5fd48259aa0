// The text of one localization key, kept current: it is looked up again whenever the language
// changes, for texts held outside a view (titles, labels kept by long-lived objects).
#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "settings/localization_manager.h"

namespace corvane {

class LocalizedString {
 public:
  explicit LocalizedString(std::string key, LocalizationManager& manager = LocalizationManager::shared());
  LocalizedString(const LocalizedString&) = delete;
  LocalizedString& operator=(const LocalizedString&) = delete;

  std::string value() const;
  const std::string& key() const { return key_; }
  // Called with the new text after each language change (on the thread that switched).
  void onChange(std::function<void(const std::string&)> handler);

 private:
  void refresh();

  std::string key_;
  LocalizationManager& manager_;
  mutable std::mutex mutex_;
  std::string value_;
  std::function<void(const std::string&)> handler_;
  // Declared last so that it is dropped first and no notification reaches a half-destroyed object.
  Subscription cancellable_;
};

}  // namespace corvane
