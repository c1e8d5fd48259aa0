// Decides, before any byte is copied, whether an item can be moved now: scans it into a
// manifest, finds the entries a copy would break while they are in use (live sockets, git's
// file-system monitor, FIFOs in use, device files), asks the user what to do about them, and
// either hands the transfer a plan or defers the item.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "engine/manifest/migration_entry.h"
#include "engine/preflight/migration_preflight_prompter.h"
#include "engine/preflight/migration_runtime_blocker.h"
#include "engine/preflight/migration_socket_owners.h"
#include "engine/preflight/migration_socket_probe.h"
#include "engine/verify/migration_integrity_verifier.h"

namespace corvane {

class MigrationPreflight {
 public:
  using Choice = MigrationPreflightChoice;

  // What the transfer receives.
  struct Plan {
    MigrationManifest manifest;
    std::set<std::string> inactiveSockets;  // nobody listens: left out of the copy
    std::set<std::string> confirmedFifos;   // nobody holds them open: recreated at the destination
    std::set<std::string> approvedSockets;  // live sockets the user let through (no front end offers this yet)
  };

  struct ToolResult {
    int status = -1;     // exit status; 128 + signal when a signal ended the tool
    std::string output;  // standard output, then standard error
  };
  using ToolRunner = std::function<ToolResult(const std::string& executable, const std::vector<std::string>& arguments,
                                              const std::string& workingDirectory)>;
  using OwnerLookup = std::function<std::vector<MigrationSocketOwners::Holder>(const std::string& socketPath)>;
  // Which of `fifos` (relative paths) some process holds open.
  using FifoUsage = std::function<std::set<std::string>(const std::string& source, const MigrationManifest& manifest,
                                                        const std::set<std::string>& fifos)>;
  using Log = std::function<void(const std::string& key, const std::vector<std::string>& arguments)>;

  // Everything the preflight asks of the outside world; tests replace single pieces.
  struct Services {
    MigrationSocketProbe::Probe probe;
    OwnerLookup owners;
    ToolRunner run;
    FifoUsage fifosInUse;
    Log log;
  };
  static Services defaultServices();

  struct ScanChecks {
    ReadableCheck readable = ReadableCheck::check;
    RemovableCheck removable = RemovableCheck::check;
  };

  struct Assessment {
    std::vector<MigrationRuntimeBlocker> blockers;
    std::set<std::string> inactiveSockets;
  };

  static constexpr std::string_view kGitExecutable = "/usr/bin/git";
  static constexpr std::string_view kGitMonitorSocketName = "fsmonitor--daemon.ipc";

  // Scan, assess, ask; again after "retry" and after "stop" (which stops the git monitors
  // first). Throws "migration.preflight.deferred" when the user says later,
  // "migration.preflight.stop_failed" when git would not stop, "migration.preflight.fifo_busy"
  // when a FIFO is still in use after the user's answer, and the scan's own issues.
  static Plan plan(const std::string& source, const MigrationIntegrityVerifier::Visited& visited,
                   MigrationPreflightPrompter& prompter, const Services& services, const ScanChecks& checks);
  static Plan plan(const std::string& source, const MigrationIntegrityVerifier::Visited& visited,
                   MigrationPreflightPrompter& prompter, const Services& services) {
    return plan(source, visited, prompter, services, ScanChecks());
  }

  // The scan of the plan: runtime entries allowed. Issues of the walk pass through; any other
  // failure is logged and becomes "migration.preflight.unreadable" with the source path.
  static MigrationManifest scan(const std::string& source, const MigrationIntegrityVerifier::Visited& visited,
                                const ScanChecks& checks);
  static MigrationManifest scan(const std::string& source, const MigrationIntegrityVerifier::Visited& visited) {
    return scan(source, visited, ScanChecks());
  }

  // The FIFOs of the manifest that nobody holds open now.
  static std::set<std::string> idleFifos(const std::string& source, const MigrationManifest& manifest,
                                         const FifoUsage& fifosInUse);

  static Assessment assess(const std::string& source, const MigrationManifest& manifest,
                           const std::set<std::string>& confirmedFifos, const std::set<std::string>& approvedSockets,
                           const Services& services);
  static std::vector<MigrationRuntimeBlocker> blockers(const std::string& source, const MigrationManifest& manifest,
                                                       const std::set<std::string>& confirmedFifos,
                                                       const std::set<std::string>& approvedSockets,
                                                       const Services& services);

  // One line about a blocker: the socket and its processes, the git directory, or the entry.
  static std::string describe(const MigrationRuntimeBlocker& blocker);
  // The answers offered about blockers, in the order of the question's buttons: stop (only when a
  // git monitor is among them: it is the one thing Corvane can stop), retry, later (always last).
  static std::vector<Choice> choices(const std::vector<MigrationRuntimeBlocker>& blockers);
  static MigrationPreflightQuestion question(const std::vector<MigrationRuntimeBlocker>& blockers);
  // The administrator question; the first button is the only yes.
  static MigrationPreflightQuestion authorizationQuestion(const std::string& path);

  // The last socket check before the switch: a socket that is now active fails with
  // "migration.preflight.runtime"; one whose state cannot be told with
  // "migration.preflight.socket_unknown".
  static void requireRuntimeIdle(const std::string& source, const MigrationManifest& manifest,
                                 const std::set<std::string>& inactiveSockets,
                                 const MigrationSocketProbe::Probe& probe);

  // The git directory whose monitor daemon would listen on `socketPath`, when it is one. Whether a
  // monitor really listens there is for the socket's holders to say.
  static std::optional<std::string> gitDirectory(const std::string& socketPath);
  // Stops every git monitor named by `blockers` and makes sure each is gone; throws
  // "migration.preflight.tool_failed" with the git directory otherwise.
  static void stopGit(const std::vector<MigrationRuntimeBlocker>& blockers, const ToolRunner& run);
  // Runs a tool with GIT_OPTIONAL_LOCKS=0 and no other inherited GIT_ variables; a tool that
  // cannot start throws "migration.preflight.tool_failed" with the executable.
  static ToolResult runTool(const std::string& executable, const std::vector<std::string>& arguments,
                            const std::string& workingDirectory);
  // The default FifoUsage: one run of the open-file lister.
  static std::set<std::string> fifosHeldOpen(const std::string& source, const MigrationManifest& manifest,
                                             const std::set<std::string>& fifos);
};

}  // namespace corvane
