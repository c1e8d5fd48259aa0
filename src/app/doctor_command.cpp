// `corvane doctor [--disk DISK] [--fix [--yes]] [--json]`: what interrupted runs, updaters and
// forgotten disks left behind, and, after showing what it will do, the safe repair of each.
#include <fcntl.h>
#include <unistd.h>

#include <iostream>
#include <nlohmann/json.hpp>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/disk_session.h"
#include "app/migration_batch_run.h"
#include "app/user_output.h"
#include "disks/disk_doctor.h"
#include "engine/manifest/migration_entry.h"
#include "engine/migration_issue.h"
#include "settings/localization.h"
#include "support/paths.h"

namespace corvane {
namespace {

struct DoctorOptions {
  std::optional<std::string> disk;
  bool fix = false;
  bool yes = false;
  bool json = false;
};

const char* kindName(DoctorFinding::Kind kind) {
  using Kind = DoctorFinding::Kind;
  switch (kind) {
    case Kind::interruptedTransfer:
      return "interruptedTransfer";
    case Kind::unreadableJournal:
      return "unreadableJournal";
    case Kind::abandonedJournal:
      return "abandonedJournal";
    case Kind::orphanStaging:
      return "orphanStaging";
    case Kind::orphanRehearsal:
      return "orphanRehearsal";
    case Kind::keptOriginal:
      return "keptOriginal";
    case Kind::replacedLink:
      return "replacedLink";
    case Kind::copyMissing:
      return "copyMissing";
    case Kind::unrecordedCopy:
      return "unrecordedCopy";
    case Kind::unlinkedCopy:
      return "unlinkedCopy";
    case Kind::diskAbsent:
      return "diskAbsent";
    case Kind::emptyChain:
      return "emptyChain";
  }
  return "unknown";
}

std::string describe(const DoctorFinding& finding) {
  return formatLocalizedText(localized(finding.key), finding.arguments);
}

nlohmann::ordered_json findingJson(const DoctorFinding& finding) {
  return {{"kind", kindName(finding.kind)}, {"disk", finding.disk},       {"path", finding.path},
          {"other", finding.other},         {"fixable", finding.fixable}, {"message", describe(finding)}};
}

std::vector<DoctorFinding> examine(const DoctorOptions& options, std::vector<std::string>& disks) {
  const DiskDoctor doctor(DiskDoctor::Configuration::forThisSystem());
  if (options.disk) {
    const std::string disk = absolutePath(*options.disk);
    if (!MigrationEntry::read(disk, AT_FDCWD)) throw MigrationIssue("error.item_not_found", disk);
    disks = {disk};
    return doctor.examineDisk(disk);
  }
  DiskSession session(VolumeWatch::off);
  disks = session.manager.externalDisks();
  std::vector<DoctorFinding> findings;
  for (const auto& disk : disks) {
    auto found = doctor.examineDisk(disk);
    findings.insert(findings.end(), found.begin(), found.end());
  }
  auto absent = doctor.examineAbsentDisks();
  findings.insert(findings.end(), absent.begin(), absent.end());
  return findings;
}

// An updater's new item goes to the disk as any migration does; the old copy becomes a version.
DiskDoctor::Repair migrateAgain(const DoctorFinding& finding, const DoctorOptions& options) {
  DiskDoctor::Repair repair;
  const auto outcomes = runMigrationBatch(
      {.paths = {finding.path}, .disk = finding.disk, .prompts = {.yes = options.yes}, .printLog = !options.json});
  for (const auto& outcome : outcomes) {
    repair.fixed = outcome.kind == MigrationManager::ItemOutcome::Kind::succeeded && outcome.recordSaved;
    if (!repair.fixed) repair.error = outcome.message;
  }
  return repair;
}

bool confirmed(std::size_t count) {
  std::fputs((localizedFormat("cli.doctor.confirm", count) + " ").c_str(), stderr);
  std::fflush(stderr);
  std::string answer;
  if (!std::getline(std::cin, answer)) return false;
  return answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes" || answer == "YES";
}

int runDoctor(const DoctorOptions& options) {
  std::vector<std::string> disks;
  const auto findings = examine(options, disks);
  std::size_t fixable = 0;
  for (const auto& finding : findings) fixable += finding.fixable ? 1 : 0;

  bool apply = options.fix && fixable > 0;
  if (apply && !options.yes) {
    // A repair removes things: it is never decided without someone who can be asked.
    if (!isatty(STDIN_FILENO)) {
      printErrorLine(localized("cli.doctor.no_terminal"));
      apply = false;
    } else {
      for (const auto& finding : findings) printLine((finding.fixable ? "* " : "  ") + describe(finding));
      if (!confirmed(fixable)) {
        printErrorLine(localized("cli.doctor.declined"));
        apply = false;
      }
    }
  }

  const DiskDoctor doctor(DiskDoctor::Configuration::forThisSystem());
  nlohmann::ordered_json report = nlohmann::ordered_json::array();
  std::size_t unresolved = 0;
  for (const auto& finding : findings) {
    nlohmann::ordered_json item = findingJson(finding);
    std::string line = describe(finding);
    if (apply && finding.fixable) {
      const auto repair =
          finding.kind == DoctorFinding::Kind::replacedLink ? migrateAgain(finding, options) : doctor.fix(finding);
      item["fixed"] = repair.fixed;
      if (!repair.error.empty()) item["error"] = repair.error;
      item["leftInPlace"] = repair.leftInPlace;
      line = repair.fixed ? localizedFormat("cli.doctor.fixed", line)
                          : localizedFormat("cli.doctor.not_fixed", line, repair.error);
      for (const auto& path : repair.leftInPlace) line += "\n  " + localizedFormat("recovery.left_in_place", path);
      if (!repair.fixed) ++unresolved;
    } else {
      ++unresolved;
    }
    if (!options.json) printLine(line);
    report.push_back(item);
  }
  if (apply) {
    // Settling a transfer or removing a record can leave folders empty that were not before.
    std::vector<std::string> ignored;
    for (const auto& finding : examine(options, ignored)) {
      if (finding.kind != DoctorFinding::Kind::emptyChain) continue;
      const auto repair = doctor.fix(finding);
      if (!options.json)
        printLine(repair.fixed ? localizedFormat("cli.doctor.fixed", describe(finding))
                               : localizedFormat("cli.doctor.not_fixed", describe(finding), repair.error));
      auto item = findingJson(finding);
      item["fixed"] = repair.fixed;
      report.push_back(item);
      if (!repair.fixed) ++unresolved;
    }
  }
  if (options.json) {
    printLine(report.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
  } else if (findings.empty()) {
    printLine(disks.empty() ? localized("cli.doctor.no_disks") : localized("cli.doctor.clean"));
  } else if (!options.fix && fixable > 0) {
    printLine(localizedFormat("cli.doctor.fix_hint", fixable));
  }
  return unresolved == 0 ? kExitSuccess : kExitBlocked;
}

}  // namespace

void addDoctorCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<DoctorOptions>();
  CLI::App* doctor = app.add_subcommand("doctor", localized("cli.doctor.description"));
  doctor->add_option("--disk", options->disk, localized("cli.doctor.disk"));
  doctor->add_flag("--fix", options->fix, localized("cli.doctor.fix"));
  doctor->add_flag("--yes", options->yes, localized("cli.doctor.yes"));
  doctor->add_flag("--json", options->json, localized("cli.option.json"));
  registry.add(doctor, [options] { return runDoctor(*options); });
}

}  // namespace corvane
