// Names the processes that hold a socket file open, for the message that asks the user to
// close them. Failures give an empty list: the names only explain, they decide nothing.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace corvane {

class MigrationSocketOwners {
 public:
  // lsof "-nP +c 0 -Fpc -- PATH", bounded to 3 s; empty on any failure.
  static std::vector<std::string> lookup(const std::string& socketPath);
  static std::vector<std::string> lookup(const std::string& socketPath, const std::string& lsofExecutable);
  // The command names of lsof's "-Fpc" output, each once, sorted.
  static std::vector<std::string> parse(std::string_view output);
};

}  // namespace corvane
