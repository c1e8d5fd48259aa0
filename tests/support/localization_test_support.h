// Helpers for the localization tests: environment variables set for one test, the diagnostic
// log captured into a file, and string tables written into a resource directory.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fixtures/temporary_directory.h"
#include "support/strings_table.h"

namespace corvane {

// Sets (or, with no value, removes) an environment variable and restores it afterwards.
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, std::optional<std::string> value);
  ~ScopedEnvironment();
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};

// Sends every diagnostic line to a file for the lifetime of the object.
class CapturedDiagnosticLog {
 public:
  CapturedDiagnosticLog();
  ~CapturedDiagnosticLog();
  std::string text() const;
  // How many lines contain `fragment`.
  int count(const std::string& fragment) const;

 private:
  TemporaryDirectory directory_;
  std::string path_;
};

// The table shipped in resources/ for a language ("en", "zh-Hans", "zh-Hant").
StringsTable shippedTable(const std::string& language);

// Writes <resources>/<code>.lproj/Localizable.strings.
void writeStringsTable(const std::string& resources, const std::string& code, const std::string& contents);

// A settings directory for one test: XDG_CONFIG_HOME points at it while the object lives.
class TemporarySettings {
 public:
  TemporarySettings();
  std::string settingsFile() const { return directory_.child("corvane/settings.json"); }
  const std::string& configHome() const { return directory_.path(); }

 private:
  TemporaryDirectory directory_;
  ScopedEnvironment variable_;
};

}  // namespace corvane
