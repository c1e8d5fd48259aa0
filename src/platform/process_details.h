// What the system can tell about another running process: the program it executes and the
// arguments it was started with. Used to name the processes that hold an item's files open.
//
// Error contract: never throws; a process that ended or cannot be inspected gives absent.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace corvane::platform {

struct ProcessDetails {
  std::string executablePath;          // empty when unknown (kernel threads, no permission)
  std::vector<std::string> arguments;  // argv, the program name first; empty when unknown
  bool operator==(const ProcessDetails&) const = default;
};

std::optional<ProcessDetails> describeProcess(pid_t pid);

}  // namespace corvane::platform
