// `corvane check PATH...`: whether each item could be moved right now. Runs the preflight's
// scan, socket probes and open-file check and prints what blocks, without changing anything:
// nothing is stopped, nothing is asked.
#include <fcntl.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/user_output.h"
#include "engine/migration_issue.h"
#include "engine/preflight/migration_occupancy_description.h"
#include "engine/preflight/migration_open_files.h"
#include "engine/preflight/migration_preflight.h"
#include "platform/file_system.h"
#include "settings/localization.h"
#include "support/paths.h"

namespace corvane {
namespace {

struct CheckOptions {
  std::vector<std::string> paths;
};

enum class Verdict { movable, blocked, error };

void printIndented(const std::string& text) {
  std::size_t start = 0;
  while (start <= text.size()) {
    auto end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    printLine("  " + text.substr(start, end - start));
    start = end + 1;
  }
}

std::string absoluteItemPath(const std::string& given) {
  std::string path = given;
  if (path.empty() || path.front() != '/') path = joinPath(std::filesystem::current_path().string(), path);
  return standardizePath(path);
}

// True when something in the item would stop a migration now.
bool reportRuntimeBlockers(const std::string& item, const MigrationManifest& manifest,
                           const MigrationPreflight::Services& services) {
  try {
    const auto confirmedFifos = MigrationPreflight::idleFifos(item, manifest, services.fifosInUse);
    const auto assessment = MigrationPreflight::assess(item, manifest, confirmedFifos, {}, services);
    for (const auto& socket : assessment.inactiveSockets)
      printIndented(localizedFormat("cli.check.inactive_socket", socket));
    for (const auto& blocker : assessment.blockers) printIndented(MigrationPreflight::describe(blocker));
    return !assessment.blockers.empty();
  } catch (const MigrationIssue& issue) {
    printIndented(issue.localizedDescription());
    return true;
  }
}

bool reportOccupancy(const std::string& item, const MigrationManifest& manifest) {
  try {
    MigrationOpenFiles::requireIdle(item, MigrationOpenFiles::fileIndex(manifest), MigrationOpenFiles::defaultInspect(),
                                    MigrationOpenFiles::noRecheck(), {}, MigrationOpenFiles::defaultIdentify());
    return false;
  } catch (const MigrationOpenFiles::Blocked& blocked) {
    printIndented(MigrationOccupancyDescription::message(blocked));
    return true;
  } catch (const MigrationIssue& issue) {
    printIndented(issue.localizedDescription());
    return true;
  }
}

Verdict checkItem(const std::string& given, const MigrationPreflight::Services& services) {
  const std::string item = absoluteItemPath(given);
  const auto status = platform::statNoFollow(AT_FDCWD, item);
  if (!status) {
    printErrorLine(localizedWithDetail("error.item_not_found", item));
    return Verdict::error;
  }
  if (MigrationEntry::kindOfMode(status->mode) == MigrationEntry::Kind::symbolicLink) {
    printErrorLine(localizedWithDetail("cli.check.symbolic_link", item));
    return Verdict::error;
  }
  printLine(localizedFormat("cli.check.item", item));
  MigrationManifest manifest;
  try {
    manifest = MigrationPreflight::scan(item, {});
  } catch (const MigrationIssue& issue) {
    printIndented(issue.localizedDescription());
    printLine(localized("cli.check.blocked"));
    return Verdict::blocked;
  }
  const bool blockedAtRuntime = reportRuntimeBlockers(item, manifest, services);
  const bool occupied = reportOccupancy(item, manifest);
  const bool blocked = blockedAtRuntime || occupied;
  printLine(localized(blocked ? "cli.check.blocked" : "cli.check.movable"));
  return blocked ? Verdict::blocked : Verdict::movable;
}

int runCheck(const CheckOptions& options) {
  auto services = MigrationPreflight::defaultServices();
  bool anyBlocked = false;
  bool anyError = false;
  for (const auto& path : options.paths) {
    switch (checkItem(path, services)) {
      case Verdict::movable:
        break;
      case Verdict::blocked:
        anyBlocked = true;
        break;
      case Verdict::error:
        anyError = true;
        break;
    }
  }
  if (anyError) return kExitFailure;
  return anyBlocked ? kExitBlocked : kExitSuccess;
}

}  // namespace

void addCheckCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<CheckOptions>();
  CLI::App* check = app.add_subcommand("check", localized("cli.check.description"));
  check->add_option("path", options->paths, localized("cli.check.path"))->required();
  registry.add(check, [options] { return runCheck(*options); });
}

}  // namespace corvane
