#include "engine/preflight/migration_preflight.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>

#include "engine/migration_issue.h"
#include "engine/preflight/migration_open_files.h"
#include "platform/process.h"
#include "settings/localization.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {
namespace {

std::string absolutePath(const std::string& source, const std::string& relativePath) {
  return relativePath.empty() ? source : joinPath(source, relativePath);
}

bool isEntryOfKind(const std::string& path, MigrationEntry::Kind kind) {
  try {
    auto entry = MigrationEntry::read(path, AT_FDCWD);
    return entry && entry->kind == kind;
  } catch (const std::exception&) {
    return false;
  }
}

std::set<std::string> pathsOfKind(const MigrationManifest& manifest, MigrationEntry::Kind kind) {
  std::set<std::string> paths;
  for (const auto& [path, entry] : manifest) {
    if (entry.kind == kind) paths.insert(path);
  }
  return paths;
}

std::string joinedNames(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) {
    if (!text.empty()) text += ", ";
    text += name;
  }
  return text;
}

}  // namespace

MigrationPreflight::Services MigrationPreflight::defaultServices() {
  Services services;
  services.probe = MigrationSocketProbe::defaultProbe();
  services.owners = [](const std::string& socketPath) { return MigrationSocketOwners::holders(socketPath); };
  services.run = runTool;
  services.fifosInUse = fifosHeldOpen;
  return services;
}

MigrationManifest MigrationPreflight::scan(const std::string& source,
                                           const MigrationIntegrityVerifier::Visited& visited,
                                           const ScanChecks& checks) {
  try {
    return MigrationIntegrityVerifier::snapshot(source, RuntimeEntries::allow, checks.readable, checks.removable,
                                                visited);
  } catch (const MigrationIssue& issue) {
    logWarning(fmt::format("Migration scan failed: {}", issue.what()));
    throw;
  } catch (const std::exception& failure) {
    logWarning(fmt::format("Migration scan failed: {}", failure.what()));
    throw MigrationIssue("migration.preflight.unreadable", source);
  }
}

std::set<std::string> MigrationPreflight::idleFifos(const std::string& source, const MigrationManifest& manifest,
                                                    const FifoUsage& fifosInUse) {
  std::set<std::string> fifos = pathsOfKind(manifest, MigrationEntry::Kind::fifo);
  if (fifos.empty()) return fifos;
  const std::set<std::string> busy = fifosInUse(source, manifest, fifos);
  std::erase_if(fifos, [&](const std::string& path) { return busy.contains(path); });
  return fifos;
}

MigrationPreflight::Assessment MigrationPreflight::assess(const std::string& source, const MigrationManifest& manifest,
                                                          const std::set<std::string>& confirmedFifos,
                                                          const std::set<std::string>& approvedSockets,
                                                          const Services& services) {
  Assessment assessment;
  for (const auto& [path, entry] : manifest) {
    switch (entry.kind) {
      case MigrationEntry::Kind::special:
        assessment.blockers.push_back({"migration.preflight.special", path, {}, std::nullopt});
        break;
      case MigrationEntry::Kind::fifo:
        if (!confirmedFifos.contains(path))
          assessment.blockers.push_back({"migration.preflight.fifo_busy", path, {}, std::nullopt});
        break;
      case MigrationEntry::Kind::socket: {
        const std::string socketPath = absolutePath(source, path);
        const auto observation = services.probe(socketPath);
        switch (observation.state) {
          case MigrationSocketProbe::State::missing:
            break;
          case MigrationSocketProbe::State::inactive:
            assessment.inactiveSockets.insert(path);
            if (services.log) services.log("migration.preflight.socket_inactive", {path});
            break;
          case MigrationSocketProbe::State::unknown:
            assessment.blockers.push_back({"migration.preflight.socket_unknown", path, {}, std::nullopt});
            break;
          case MigrationSocketProbe::State::active: {
            // A git directory's monitor socket is git's only when git's monitor holds it: any other
            // program there is asked to quit like every other, never stopped as git.
            const auto gitDir = gitDirectory(socketPath);
            if (!gitDir && approvedSockets.contains(path)) break;
            std::vector<MigrationSocketOwners::Holder> holders;
            if (services.owners) holders = services.owners(socketPath);
            if (gitDir && MigrationSocketOwners::heldOnlyByGitMonitors(holders)) {
              assessment.blockers.push_back({"migration.preflight.git_service", path, {}, *gitDir});
            } else if (!approvedSockets.contains(path)) {
              assessment.blockers.push_back(
                  {"migration.preflight.socket", path, MigrationSocketOwners::names(holders), std::nullopt});
            }
            break;
          }
        }
        break;
      }
      default:
        break;
    }
  }
  return assessment;
}

std::vector<MigrationRuntimeBlocker> MigrationPreflight::blockers(const std::string& source,
                                                                  const MigrationManifest& manifest,
                                                                  const std::set<std::string>& confirmedFifos,
                                                                  const std::set<std::string>& approvedSockets,
                                                                  const Services& services) {
  return assess(source, manifest, confirmedFifos, approvedSockets, services).blockers;
}

MigrationPreflight::Plan MigrationPreflight::plan(const std::string& source,
                                                  const MigrationIntegrityVerifier::Visited& visited,
                                                  MigrationPreflightPrompter& prompter, const Services& services,
                                                  const ScanChecks& checks) {
  const std::set<std::string> approvedSockets;
  std::optional<std::set<std::string>> busyWhenAnswered;
  for (;;) {
    MigrationManifest manifest = scan(source, visited, checks);
    const std::set<std::string> fifos = pathsOfKind(manifest, MigrationEntry::Kind::fifo);
    std::set<std::string> busy;
    if (!fifos.empty()) busy = services.fifosInUse(source, manifest, fifos);
    if (busyWhenAnswered) {
      for (const auto& path : busy) {
        if (busyWhenAnswered->contains(path))
          throw MigrationIssue("migration.preflight.fifo_busy", absolutePath(source, path));
      }
    }
    std::set<std::string> confirmedFifos;
    std::set_difference(fifos.begin(), fifos.end(), busy.begin(), busy.end(),
                        std::inserter(confirmedFifos, confirmedFifos.end()));

    Assessment assessment = assess(source, manifest, confirmedFifos, approvedSockets, services);
    if (assessment.blockers.empty()) {
      return Plan{std::move(manifest), std::move(assessment.inactiveSockets), std::move(confirmedFifos),
                  approvedSockets};
    }
    switch (prompter.choose(assessment.blockers)) {
      case Choice::later:
        throw MigrationIssue("migration.preflight.deferred", source);
      case Choice::retry:
        break;
      case Choice::stop:
        try {
          stopGit(assessment.blockers, services.run);
        } catch (const std::exception& failure) {
          logWarning(fmt::format("Git stop failed: {}", failure.what()));
          prompter.alert(localized("migration.preflight.title"), localized("migration.preflight.stop_retry_message"));
          throw MigrationIssue("migration.preflight.stop_failed", source);
        }
        break;
    }
    busyWhenAnswered = std::move(busy);
  }
}

std::string MigrationPreflight::describe(const MigrationRuntimeBlocker& blocker) {
  if (blocker.key == "migration.preflight.socket") {
    const std::string owners =
        blocker.owners.empty() ? localized("migration.occupancy.unnamed") : joinedNames(blocker.owners);
    return localizedFormat("migration.preflight.used_by", blocker.relativePath, owners);
  }
  if (blocker.gitDirectory) return localizedWithDetail(blocker.key, *blocker.gitDirectory);
  return localizedWithDetail(blocker.key, blocker.relativePath);
}

namespace {

bool hasGitMonitor(const std::vector<MigrationRuntimeBlocker>& blockers) {
  return std::any_of(blockers.begin(), blockers.end(),
                     [](const auto& blocker) { return blocker.key == "migration.preflight.git_service"; });
}

}  // namespace

std::vector<MigrationPreflight::Choice> MigrationPreflight::choices(
    const std::vector<MigrationRuntimeBlocker>& blockers) {
  if (hasGitMonitor(blockers)) return {Choice::stop, Choice::retry, Choice::later};
  return {Choice::retry, Choice::later};
}

MigrationPreflightQuestion MigrationPreflight::question(const std::vector<MigrationRuntimeBlocker>& blockers) {
  const bool sockets = std::any_of(blockers.begin(), blockers.end(), [](const auto& blocker) {
    return blocker.key == "migration.preflight.socket" || blocker.key == "migration.preflight.socket_unknown";
  });
  std::string message = localized("migration.preflight.summary");
  if (sockets) message += "\n" + localized("migration.preflight.message_sockets");
  if (hasGitMonitor(blockers)) message += "\n" + localized("migration.preflight.message_git");
  for (const auto& blocker : blockers) message += "\n" + describe(blocker);
  std::vector<std::string> buttons;
  for (const Choice choice : choices(blockers)) {
    switch (choice) {
      case Choice::stop:
        buttons.push_back(localized("migration.preflight.stop"));
        break;
      case Choice::retry:
        buttons.push_back(localized("migration.preflight.retry"));
        break;
      case Choice::later:
        buttons.push_back(localized("migration.preflight.later"));
        break;
    }
  }
  return {localized("migration.preflight.title"), message, std::move(buttons)};
}

MigrationPreflightQuestion MigrationPreflight::authorizationQuestion(const std::string& path) {
  return {localized("migration.preflight.admin_title"),
          localizedWithDetail("migration.preflight.admin_message", path),
          {localized("migration.preflight.authorize"), localized("migration.preflight.later")}};
}

void MigrationPreflight::requireRuntimeIdle(const std::string& source, const MigrationManifest& manifest,
                                            const std::set<std::string>& inactiveSockets,
                                            const MigrationSocketProbe::Probe& probe) {
  for (const auto& [path, entry] : manifest) {
    if (entry.kind != MigrationEntry::Kind::socket) continue;
    const std::string socketPath = absolutePath(source, path);
    switch (probe(socketPath).state) {
      case MigrationSocketProbe::State::active:
        throw MigrationIssue("migration.preflight.runtime", socketPath);
      case MigrationSocketProbe::State::unknown:
        // A socket that answered before and cannot be judged now may have come alive.
        throw MigrationIssue("migration.preflight.socket_unknown", socketPath);
      case MigrationSocketProbe::State::inactive:
        if (!inactiveSockets.contains(path))
          logInfo(fmt::format("Socket {} is inactive at the final check", socketPath));
        break;
      case MigrationSocketProbe::State::missing:
        break;
    }
  }
}

std::optional<std::string> MigrationPreflight::gitDirectory(const std::string& socketPath) {
  if (lastComponent(socketPath) != kGitMonitorSocketName) return std::nullopt;
  const std::string directory = parentPath(socketPath);
  if (!isEntryOfKind(joinPath(directory, "HEAD"), MigrationEntry::Kind::regular) ||
      !isEntryOfKind(joinPath(directory, "config"), MigrationEntry::Kind::regular) ||
      !isEntryOfKind(joinPath(directory, "objects"), MigrationEntry::Kind::directory)) {
    return std::nullopt;
  }
  return directory;
}

void MigrationPreflight::stopGit(const std::vector<MigrationRuntimeBlocker>& blockers, const ToolRunner& run) {
  std::set<std::string> directories;
  for (const auto& blocker : blockers) {
    if (blocker.gitDirectory) directories.insert(*blocker.gitDirectory);
  }
  const std::string git(kGitExecutable);
  for (const auto& directory : directories) {
    const auto stop = run(git, {"--git-dir=.", "fsmonitor--daemon", "stop"}, directory);
    if (stop.status != 0) {
      logWarning(
          fmt::format("git fsmonitor--daemon stop in {} exited with {}: {}", directory, stop.status, stop.output));
      throw MigrationIssue("migration.preflight.tool_failed", directory);
    }
    // "status" answers 0 only while a daemon still watches the repository.
    const auto status = run(git, {"--git-dir=.", "fsmonitor--daemon", "status"}, directory);
    if (status.status == 0) {
      logWarning(fmt::format("git monitor in {} still runs after stop: {}", directory, status.output));
      throw MigrationIssue("migration.preflight.tool_failed", directory);
    }
    // A daemon that shut down removes its socket.
    const std::string socketPath = joinPath(directory, kGitMonitorSocketName);
    std::optional<MigrationEntry> socket;
    try {
      socket = MigrationEntry::read(socketPath, AT_FDCWD);
    } catch (const std::exception& failure) {
      logWarning(fmt::format("git monitor socket unreadable after stop: {}", failure.what()));
      throw MigrationIssue("migration.preflight.tool_failed", directory);
    }
    if (socket) {
      logWarning(fmt::format("git monitor socket {} is still there after stop", socketPath));
      throw MigrationIssue("migration.preflight.tool_failed", directory);
    }
  }
}

MigrationPreflight::ToolResult MigrationPreflight::runTool(const std::string& executable,
                                                           const std::vector<std::string>& arguments,
                                                           const std::string& workingDirectory) {
  platform::ProcessRequest request;
  request.executable = executable;
  request.arguments = arguments;
  request.workingDirectory = workingDirectory;
  auto environment = platform::currentEnvironment();
  // Inherited GIT_DIR, GIT_WORK_TREE and the like would override "--git-dir=.".
  std::erase_if(environment, [](const auto& variable) { return variable.first.starts_with("GIT_"); });
  // No optional locks: git must not write index locks inside the item while it is inspected.
  environment["GIT_OPTIONAL_LOCKS"] = "0";
  request.environment = std::move(environment);
  platform::ProcessDeadlines deadlines;
  deadlines.exit = std::chrono::seconds(20);
  platform::ProcessResult run;
  try {
    run = platform::runProcess(request, deadlines);
  } catch (const std::exception& failure) {
    logWarning(fmt::format("{} could not start: {}", executable, failure.what()));
    throw MigrationIssue("migration.preflight.tool_failed", executable);
  }
  ToolResult result;
  result.status = run.exit.exited() ? run.exit.exitCode : 128 + run.exit.signal;
  result.output = run.standardOutput + run.standardError;
  return result;
}

std::set<std::string> MigrationPreflight::fifosHeldOpen(const std::string& source, const MigrationManifest& manifest,
                                                        const std::set<std::string>& fifos) {
  MigrationManifest onlyFifos;
  for (const auto& path : fifos) {
    if (auto found = manifest.find(path); found != manifest.end()) onlyFifos.emplace(path, found->second);
  }
  std::set<std::string> busy;
  for (const auto& reference : MigrationOpenFiles::occupyingReferences(source, MigrationOpenFiles::fileIndex(onlyFifos),
                                                                       MigrationOpenFiles::defaultInspect())) {
    busy.insert(reference.itemPath);
  }
  return busy;
}

}  // namespace corvane
