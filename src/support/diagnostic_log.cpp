#include "support/diagnostic_log.h"

#include <fmt/format.h>

#include <cstdio>
#include <ctime>
#include <mutex>

namespace corvane {
namespace {

struct LogState {
  std::mutex mutex;
  LogLevel verbosity = LogLevel::warning;
  std::FILE* file = nullptr;
};

LogState& state() {
  static LogState instance;
  return instance;
}

constexpr const char* kLevelNames[] = {"error", "warning", "info", "debug"};

}  // namespace

void setDiagnosticVerbosity(LogLevel level) {
  std::lock_guard lock(state().mutex);
  state().verbosity = level;
}

LogLevel diagnosticVerbosity() {
  std::lock_guard lock(state().mutex);
  return state().verbosity;
}

void setDiagnosticLogFile(const std::string& path) {
  std::lock_guard lock(state().mutex);
  if (state().file) std::fclose(state().file);
  state().file = path.empty() ? nullptr : std::fopen(path.c_str(), "ae");
}

void logDiagnostic(LogLevel level, std::string_view message) {
  auto& log = state();
  std::lock_guard lock(log.mutex);
  if (level > log.verbosity) return;
  std::FILE* out = log.file ? log.file : stderr;
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  fmt::print(out, "[{}] {}: {}\n", stamp, kLevelNames[static_cast<int>(level)], message);
  std::fflush(out);
}

}  // namespace corvane
