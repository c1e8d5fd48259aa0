// Turns localization keys into text in the language the user chose, switches language while
// the program runs, and falls back to English and then to the key itself. One shared instance
// serves the whole process; lookups may come from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "settings/settings_store.h"
#include "support/language.h"
#include "support/observer_list.h"
#include "support/strings_table.h"

namespace corvane {

class LocalizationManager {
 public:
  struct Configuration {
    // The directory holding <code>.lproj/Localizable.strings; absent when none was found.
    std::optional<std::string> resourceDirectory;
    // The system's preferred languages, most preferred first.
    std::function<std::vector<std::string>()> preferredLanguages;
  };

  using Observer = std::function<void(Language)>;

  // Created on first use from the saved setting, the installed tables and the system's
  // languages.
  static LocalizationManager& shared();

  // Reads the saved "AppLanguage" (a missing or unknown value is a first start: "system" is
  // saved) and loads the matching table.
  explicit LocalizationManager(Configuration configuration);
  LocalizationManager(const LocalizationManager&) = delete;
  LocalizationManager& operator=(const LocalizationManager&) = delete;

  // The language in effect for this run.
  Language currentLanguage() const;
  // The language saved in the settings (what the next run starts with).
  Language savedLanguage() const;
  // Saves the language, switches every later lookup to it and tells the observers. False when
  // the setting could not be saved; the switch happens either way.
  [[nodiscard]] bool setCurrentLanguage(Language language);
  // Switches for the rest of this run without saving (the command line's --lang).
  void useLanguageForThisRun(Language language);
  // The code lookups use now: "en", "zh-Hans" or "zh-Hant".
  std::string languageCode() const;

  // The key's text in the current language, else in English, else the key.
  std::string localized(std::string_view key);

  // `observer` is called with the new language after every switch, outside the manager's lock
  // (it may look texts up), on the thread that switched.
  [[nodiscard]] Subscription observe(Observer observer);

 private:
  using Bundle = std::shared_ptr<const StringsTable>;

  void switchLanguage(Language language);
  std::string codeFor(Language language) const;
  void updateBundle();
  Bundle getOrCreateBundle(const std::string& code);
  static Bundle loadBundle(const std::string& directory);
  Bundle mainBundle();
  void testBundle() const;
  static std::optional<std::string> lookup(const Bundle& bundle, std::string_view key);

  Configuration configuration_;
  SettingsStore settings_;
  mutable std::mutex mutex_;
  Language currentLanguage_ = Language::system;
  Language savedLanguage_ = Language::system;
  std::string code_ = "en";
  Bundle bundle_;
  Bundle mainBundle_;
  bool mainBundleLoaded_ = false;
  std::map<std::string, Bundle> bundles_;
  ObserverList<Language> observers_;
};

}  // namespace corvane
