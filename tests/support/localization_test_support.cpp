#include "support/localization_test_support.h"

#include <stdlib.h>

#include "fixtures/sample_tree.h"
#include "support/diagnostic_log.h"

namespace corvane {

ScopedEnvironment::ScopedEnvironment(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
  if (const char* current = ::getenv(name_.c_str())) previous_ = current;
  if (value) {
    ::setenv(name_.c_str(), value->c_str(), 1);
  } else {
    ::unsetenv(name_.c_str());
  }
}

ScopedEnvironment::~ScopedEnvironment() {
  if (previous_) {
    ::setenv(name_.c_str(), previous_->c_str(), 1);
  } else {
    ::unsetenv(name_.c_str());
  }
}

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
  const std::string all = text();
  int lines = 0;
  std::size_t start = 0;
  while (start < all.size()) {
    auto end = all.find('\n', start);
    if (end == std::string::npos) end = all.size();
    if (all.substr(start, end - start).find(fragment) != std::string::npos) ++lines;
    start = end + 1;
  }
  return lines;
}

void writeStringsTable(const std::string& resources, const std::string& code, const std::string& contents) {
  makeDirectories(resources + "/" + code + ".lproj");
  writeFile(resources + "/" + code + ".lproj/Localizable.strings", contents);
}

TemporarySettings::TemporarySettings() : variable_("XDG_CONFIG_HOME", directory_.path()) {}

}  // namespace corvane
