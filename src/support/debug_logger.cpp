#include "support/debug_logger.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "support/descriptor_io.h"
#include "support/diagnostic_log.h"

namespace corvane {
namespace {

std::string timestampNow() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  return stamp;
}

// One write of the whole line in append mode, so lines of several processes never interleave.
bool appendLine(const std::string& path, const std::string& line) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  const bool ok = writeAll(fd, line);
  return ::close(fd) == 0 && ok;
}

}  // namespace

DebugLogger& DebugLogger::shared() {
  static DebugLogger instance;
  return instance;
}

void DebugLogger::log(std::string_view message) {
  logDebug(message);
  std::lock_guard lock(mutex_);
  if (!logFile_) return;
  if (appendLine(*logFile_, fmt::format("[{}] {}\n", timestampNow(), message))) return;
  if (!reportedFileFailure_) {
    reportedFileFailure_ = true;
    logWarning(fmt::format("Debug log {} can't be written: {}", *logFile_, std::strerror(errno)));
  }
}

void DebugLogger::setLogFile(std::optional<std::string> path) {
  std::lock_guard lock(mutex_);
  logFile_ = std::move(path);
  reportedFileFailure_ = false;
}

}  // namespace corvane
