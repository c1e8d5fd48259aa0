// The sink for the diagnostic messages of the disk-protection code. Its lines join the
// diagnostic log at debug level (seen with --verbose), never the user's output; when a log
// file is set they are appended to that file as well.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

class DebugLogger {
 public:
  static DebugLogger& shared();

  void log(std::string_view message);
  // None (the default) keeps the lines in the diagnostic log only.
  void setLogFile(std::optional<std::string> path);

 private:
  mutable std::mutex mutex_;
  std::optional<std::string> logFile_;
  bool reportedFileFailure_ = false;
};

}  // namespace corvane
