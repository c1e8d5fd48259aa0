// Docker through its command-line client: finding the client, measuring the space that pruning
// unused images and the build cache would give back, and running the prune. A missing client or
// an unreachable daemon means "no Docker item", never an error of the scan.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/host_system.h"
#include "platform/process.h"

namespace corvane {

// Docker's human sizes ("1.5GB", "0B", "742MB") in decimal units; anything unreadable is 0.
// Case matters: "512kB" matches only the "B" suffix and "512k" is no number, so it gives 0.
std::int64_t parseDockerSize(std::string_view text);

// Where the client is looked for, first match wins. Linux adds every directory of `pathVariable`.
std::vector<std::string> dockerClientCandidates(platform::HostSystem system, std::string_view pathVariable);

// How long the client may take: queries answer quickly or the daemon is in trouble; a prune of
// many images can take minutes.
struct DockerDeadlines {
  platform::ProcessDeadlines query{std::chrono::seconds(20), std::chrono::seconds(2), std::chrono::seconds(2)};
  platform::ProcessDeadlines prune{std::chrono::minutes(30), std::chrono::seconds(5), std::chrono::seconds(5)};
};

class DockerClient {
 public:
  DockerClient(std::vector<std::string> candidates, DockerDeadlines deadlines);

  // The first candidate that exists and can be run.
  std::optional<std::string> locate() const;
  // Standard output of a successful run; nothing when there is no client or the run failed
  // (no daemon, a refused command, a run past its deadline).
  std::optional<std::string> runDockerCommand(const std::vector<std::string>& arguments) const;
  // Runs `command` ("docker" names the client) and tells whether it exited with 0.
  bool executeCommand(const std::string& command, const std::vector<std::string>& arguments) const;
  // Unused images plus the reclaimable build cache; nothing without a client or a daemon.
  std::optional<std::int64_t> getDockerReclaimableSpace() const;

 private:
  std::optional<platform::ProcessResult> run(const std::string& executable, const std::vector<std::string>& arguments,
                                             const platform::ProcessDeadlines& deadlines) const;

  std::vector<std::string> candidates_;
  DockerDeadlines deadlines_;
};

}  // namespace corvane
