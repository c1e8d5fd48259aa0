// `corvane disks`: the accepted external disks with their free space, destination mark,
// protection and drift findings, live with --watch; and the actions on them: `protect`,
// `repair` (a ghost folder) and `relink` (links that point into an old mount path).
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/disk_report.h"
#include "app/disk_session.h"
#include "app/interruption.h"
#include "app/terminal_prompter.h"
#include "app/user_output.h"
#include "disks/link_drift.h"
#include "engine/migration_issue.h"
#include "settings/byte_format.h"
#include "settings/localization.h"
#include "support/paths.h"

namespace corvane {
namespace {

struct DisksOptions {
  bool json = false;
  bool watch = false;
  std::string disk;
  bool manual = false;
  std::string ghost;
  PromptOptions prompts;
};

// The disk a command names: one of the accepted disks, or the destination when none is named.
std::string chosenDisk(const DiskManager& manager, const std::string& named) {
  if (named.empty()) {
    if (!manager.destinationPath()) throw MigrationIssue("cli.disks.no_disk");
    return *manager.destinationPath();
  }
  const std::string disk = absolutePath(named);
  const auto& disks = manager.externalDisks();
  if (std::find(disks.begin(), disks.end(), disk) == disks.end()) throw MigrationIssue("cli.disks.not_external", disk);
  return disk;
}

void watchDisks(DiskSession& session) {
  std::vector<std::string> shown = session.manager.externalDisks();
  const Subscription changes = session.manager.observe([&](DiskChange change) {
    if (change != DiskChange::externalDisks) return;
    const auto& now = session.manager.externalDisks();
    for (const auto& disk : now)
      if (std::find(shown.begin(), shown.end(), disk) == shown.end())
        printLine(localizedFormat("cli.disks.appeared", disk));
    for (const auto& disk : shown)
      if (std::find(now.begin(), now.end(), disk) == now.end())
        printLine(localizedFormat("cli.disks.disappeared", disk));
    shown = now;
  });
  printLine(localized("cli.disks.watching"));
  while (!InterruptionGuard::requested())
    session.queue.runUntil([] { return InterruptionGuard::requested().load(); }, std::chrono::milliseconds(200));
}

int runDisks(const DisksOptions& options) {
  InterruptionGuard interruption;
  DiskSession session(options.watch ? VolumeWatch::on : VolumeWatch::off);
  printDiskReports(reportDisks(session.manager), options.json);
  printAccessProblem(session.manager);
  if (options.watch) watchDisks(session);
  return kExitSuccess;
}

int runProtect(const DisksOptions& options) {
  DiskSession session(VolumeWatch::off);
  const std::string disk = chosenDisk(session.manager, options.disk);
  session.manager.setDestinationPath(disk);
  if (options.manual) {
    const auto command = session.manager.getManualProtectionCommand();
    printLine(localizedFormat("disk.protection.manual.message", command.value_or("Error")));
    return command ? kExitSuccess : kExitFailure;
  }
  std::optional<std::pair<bool, std::optional<std::string>>> result;
  session.manager.enableDiskProtection(
      [&](bool success, std::optional<std::string> message) { result.emplace(success, std::move(message)); });
  session.runUntil([&] { return result.has_value(); });
  if (result && result->first) {
    printLine(localizedFormat("cli.disks.protect.done", disk));
    return kExitSuccess;
  }
  printErrorLine(result && result->second ? *result->second : localized("error.unexpected"));
  if (const auto command = session.manager.getManualProtectionCommand())
    printErrorLine(localizedFormat("cli.disks.protect.manual_hint", *command));
  return kExitFailure;
}

bool confirmedRemoval(const std::string& ghost, const GhostDirectoryContents& contents, const PromptOptions& prompts) {
  printLine(localizedFormat("ghost_files.message", ghost));
  std::string names;
  for (const auto& name : contents.firstNames) names += (names.empty() ? "" : ", ") + name;
  printLine(
      localizedFormat("cli.disks.ghost_contents", contents.entryCount, formatByteCount(contents.totalBytes), names));
  if (prompts.yes) return true;
  if (prompts.defer || !isatty(STDIN_FILENO)) throw MigrationIssue("cli.disks.repair.no_terminal");
  auto prompter = TerminalPrompter::onStandardStreams(PresetAnswer::none);
  const MigrationPreflightQuestion question{localized("ghost_files.title"),
                                            localized("cli.disks.repair.question"),
                                            {localized("ghost_files.action"), localized("cli.disks.repair.keep")}};
  return prompter->askChoice(question, 1) == 0;
}

// The disk whose links name `oldPath` as their mount path, when the vote found none there.
std::optional<std::string> diskDriftedFrom(DiskManager& manager, const std::string& oldPath) {
  for (const auto& disk : manager.externalDisks())
    for (const auto& link : findDriftedLinks(disk, manager.volumesRoots()))
      if (link.recordedVolume == oldPath) return disk;
  return std::nullopt;
}

int runRepair(const DisksOptions& options) {
  DiskSession session(VolumeWatch::off);
  auto& manager = session.manager;
  const std::string ghost = absolutePath(options.ghost);
  const auto& ghosts = manager.ghostPaths();
  const bool votedGhost = std::find(ghosts.begin(), ghosts.end(), ghost) != ghosts.end();
  const auto driftedDisk = votedGhost ? std::nullopt : diskDriftedFrom(manager, ghost);
  if (!votedGhost && !driftedDisk) throw MigrationIssue("cli.disks.not_ghost", ghost);

  const auto contents = manager.fstab().describeGhostDirectory(ghost);
  if (votedGhost && !contents) throw MigrationIssue("cli.disks.not_ghost", ghost);
  if (contents && !confirmedRemoval(ghost, *contents, options.prompts)) {
    printLine(localized("cli.disks.repair.declined"));
    return kExitSuccess;
  }
  std::optional<std::pair<bool, std::optional<std::string>>> result;
  auto completion = [&](bool success, std::optional<std::string> message) {
    result.emplace(success, std::move(message));
  };
  if (votedGhost)
    manager.fixGhostDirectory(ghost, completion, contents);
  else
    manager.remountDriftedDisk(*driftedDisk, ghost, completion, contents);
  session.runUntil([&] { return result.has_value(); });
  if (!result || !result->first) {
    printErrorLine(result && result->second ? *result->second : localized("error.unexpected"));
    return kExitFailure;
  }
  printLine(localizedFormat(contents ? "cli.disks.repair.done" : "cli.disks.repair.remounted", ghost));
  if (result->second) printLine(*result->second);
  return kExitSuccess;
}

int runRelink(const DisksOptions& options) {
  DiskSession session(VolumeWatch::off);
  const std::string disk = chosenDisk(session.manager, options.disk);
  const auto outcomes = relinkDriftedLinks(disk, session.manager.volumesRoots());
  if (outcomes.empty()) {
    printLine(localizedFormat("cli.disks.relink.nothing", disk));
    return kExitSuccess;
  }
  bool allRelinked = true;
  for (const auto& outcome : outcomes) {
    if (outcome.relinked) {
      printLine(localizedFormat("cli.disks.relink.done", outcome.link.originalPath, outcome.link.currentTarget));
    } else {
      allRelinked = false;
      printErrorLine(localizedFormat("cli.disks.relink.failed", outcome.link.originalPath, outcome.failure));
    }
  }
  return allRelinked ? kExitSuccess : kExitFailure;
}

int guardedRun(int (*run)(const DisksOptions&), const DisksOptions& options) {
  try {
    return run(options);
  } catch (const std::exception& failure) {
    return reportFailure(failure);
  }
}

}  // namespace

void addDisksCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<DisksOptions>();
  CLI::App* disks = app.add_subcommand("disks", localized("cli.disks.description"));
  disks->add_flag("--json", options->json, localized("cli.option.json"));
  disks->add_flag("--watch", options->watch, localized("cli.disks.watch"));
  disks->require_subcommand(0, 1);

  CLI::App* protect = disks->add_subcommand("protect", localized("cli.disks.protect.description"));
  protect->add_option("disk", options->disk, localized("cli.disks.disk_option"));
  protect->add_flag("--manual", options->manual, localized("cli.disks.protect.manual"));

  CLI::App* repair = disks->add_subcommand("repair", localized("cli.disks.repair.description"));
  repair->add_option("ghost", options->ghost, localized("cli.disks.repair.ghost"))->required();
  addPromptOptions(repair, options->prompts);

  CLI::App* relink = disks->add_subcommand("relink", localized("cli.disks.relink.description"));
  relink->add_option("disk", options->disk, localized("cli.disks.disk_option"))->required();

  registry.add(protect, [options] { return guardedRun(runProtect, *options); });
  registry.add(repair, [options] { return guardedRun(runRepair, *options); });
  registry.add(relink, [options] { return guardedRun(runRelink, *options); });
  registry.add(disks, [options] { return guardedRun(runDisks, *options); });
}

}  // namespace corvane
