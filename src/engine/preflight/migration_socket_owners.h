// Names the processes that hold a socket file open, for the message that asks the user to close
// them, and tells whether they are git's file-system monitor, which the preflight may stop itself.
// Failures give an empty list: the names only explain, and nobody named is never taken for git.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/process_details.h"

namespace corvane {

class MigrationSocketOwners {
 public:
  struct Holder {
    pid_t pid = 0;
    std::string command;
    std::optional<platform::ProcessDetails> details;  // its program and arguments, when they could be read
    bool operator==(const Holder&) const = default;
  };

  // The processes holding the socket: on Linux from the process table, by the socket file's
  // identity (lsof misses a server that bound a relative name or a path through a link); lsof
  // elsewhere. Bounded by the owner lookup's deadline; empty on any failure.
  static std::vector<Holder> holders(const std::string& socketPath);
  // lsof "-nP +c 0 -Fpc -- PATH", bounded alike; empty on any failure.
  static std::vector<Holder> holders(const std::string& socketPath, const std::string& lsofExecutable);
  // The holders' command names, each once, sorted.
  static std::vector<std::string> names(const std::vector<Holder>& holders);
  static std::vector<std::string> lookup(const std::string& socketPath) { return names(holders(socketPath)); }
  // Whether every holder (and there is one) is git's file-system monitor daemon.
  static bool heldOnlyByGitMonitors(const std::vector<Holder>& holders);
  // The processes of lsof's "-Fpc" output, in order, each with its command name.
  static std::vector<Holder> parse(std::string_view output);
};

}  // namespace corvane
