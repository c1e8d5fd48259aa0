#include "support/localization_test_support.h"

#include <stdlib.h>

#include <sstream>

#include "fixtures/sample_tree.h"
#include "support/diagnostic_log.h"

namespace corvane {

namespace {
void setOrUnset(const std::string& name, const std::optional<std::string>& value) {
  (void)(value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str()));
}
}  // namespace

ScopedEnvironment::ScopedEnvironment(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
  if (const char* current = ::getenv(name_.c_str())) previous_ = current;
  setOrUnset(name_, value);
}

ScopedEnvironment::~ScopedEnvironment() { setOrUnset(name_, previous_); }

CapturedDiagnosticLog::CapturedDiagnosticLog() : path_(directory_.child("diagnostic.log")) {
  setDiagnosticLogFile(path_);
  setDiagnosticVerbosity(LogLevel::debug);
}

CapturedDiagnosticLog::~CapturedDiagnosticLog() {
  setDiagnosticLogFile("");
  setDiagnosticVerbosity(LogLevel::warning);
}

std::string CapturedDiagnosticLog::text() const {
  try {
    return readFile(path_);
  } catch (...) {
    return {};
  }
}

int CapturedDiagnosticLog::count(const std::string& fragment) const {
  std::istringstream all(text());
  int lines = 0;
  for (std::string line; std::getline(all, line);) lines += line.find(fragment) != std::string::npos;
  return lines;
}

StringsTable shippedTable(const std::string& language) {
  return StringsTable::parse(
      readFile(std::string(CORVANE_TEST_SOURCE_DIR) + "/resources/" + language + ".lproj/Localizable.strings"));
}

void writeStringsTable(const std::string& resources, const std::string& code, const std::string& contents) {
  makeDirectories(resources + "/" + code + ".lproj");
  writeFile(resources + "/" + code + ".lproj/Localizable.strings", contents);
}

TemporarySettings::TemporarySettings() : variable_("XDG_CONFIG_HOME", directory_.path()) {}

}  // namespace corvane
