#include "disks/disk_doctor.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "catalogue/app_manager.h"
#include "catalogue/migrated_apps_file.h"
#include "catalogue/reference_date.h"
#include "catalogue/transfer_staging_name.h"
#include "engine/journal/migration_journal_recovery.h"
#include "engine/manifest/migration_entry.h"
#include "engine/migration_failure.h"
#include "engine/migration_issue.h"
#include "engine/migration_manager.h"
#include "engine/switch/migration_file_safety.h"
#include "platform/directory_names.h"
#include "platform/posix_error.h"
#include "platform/tree_removal.h"
#include "platform/unique_fd.h"
#include "platform/volume_description.h"
#include "settings/localization.h"
#include "support/diagnostic_log.h"
#include "support/home_directory.h"
#include "support/paths.h"
#include "support/uuid.h"

namespace corvane {
namespace {

using Kind = MigrationEntry::Kind;
using Finding = DoctorFinding;

constexpr std::string_view kRehearsalPrefix = ".corvane-access-";
constexpr std::string_view kKeptMarker = ".corvane_backup_";
// Deep enough for any folder a user moves; a tree deeper than this is not walked further.
constexpr int kDirectoriesDepth = 48;

std::optional<MigrationEntry> look(const std::string& path) {
  try {
    return MigrationEntry::read(path, AT_FDCWD);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

bool isDirectory(const std::optional<MigrationEntry>& entry) { return entry && entry->kind == Kind::directory; }

std::vector<std::string> namesIn(const std::string& folder) {
  platform::UniqueFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd) return {};
  try {
    auto names = platform::directoryNames(fd.get(), folder);
    std::sort(names.begin(), names.end());
    return names;
  } catch (const std::exception&) {
    return {};
  }
}

// The UUID a leftover's name carries after `marker`, when it carries one.
std::optional<std::string> uuidAfter(std::string_view name, std::string_view marker) {
  const auto at = name.find(marker);
  if (at == std::string_view::npos) return std::nullopt;
  std::string id(name.substr(at + marker.size()));
  if (!isUuidString(id)) return std::nullopt;
  return id;
}

Finding finding(Finding::Kind kind, const std::string& disk, std::string path, std::string other, bool fixable,
                std::string key, std::vector<std::string> arguments) {
  Finding result;
  result.kind = kind;
  result.disk = disk;
  result.path = std::move(path);
  result.other = std::move(other);
  result.fixable = fixable;
  result.key = std::move(key);
  result.arguments = std::move(arguments);
  return result;
}

std::string journalKey(const MigrationJournalEntry& entry, const MigrationRecovery& recovery) {
  const bool migrating = entry.direction == MigrationJournalDirection::migrate;
  switch (recovery.kind) {
    case MigrationRecovery::Kind::finish:
      return migrating ? "doctor.journal.finish_migrate" : "doctor.journal.finish_back";
    case MigrationRecovery::Kind::rollBack:
      return migrating ? "doctor.journal.undo_migrate" : "doctor.journal.undo_back";
    case MigrationRecovery::Kind::busy:
      return "doctor.journal.busy";
    case MigrationRecovery::Kind::stuck:
      return "doctor.journal.stuck";
  }
  return "doctor.journal.stuck";
}

std::vector<MigratedApp> recordsOf(const std::string& disk) {
  try {
    return MigratedAppsFile::read(MigratedAppsFile::currentPath(disk));
  } catch (const std::exception& error) {
    logInfo("no records read on " + disk + ": " + error.what());
    return {};
  }
}

struct Examination {
  const std::string& disk;
  const DiskDoctor::Configuration& configuration;
  std::vector<Finding> findings;
  std::set<std::string> journalIds;
  std::vector<MigratedApp> records;
  std::set<std::string> recordedTargets;
  // Items an interrupted transfer's entry settles, record included.
  std::set<std::string> journaledItems;

  void journal() {
    const auto listing = MigrationJournal::list(disk);
    for (const auto& entry : listing.entries) {
      journalIds.insert(entry.id);
      // The entry settles its copy: it is not also reported as one without a record.
      recordedTargets.insert(entry.copyPath());
      journaledItems.insert(entry.itemPath());
      const auto recovery = MigrationJournalRecovery::judge(entry);
      std::vector<std::string> arguments{entry.name, entry.source, entry.destination};
      if (recovery.kind == MigrationRecovery::Kind::stuck)
        arguments = {entry.name, formatLocalizedText(localized(recovery.reasonKey), {recovery.reasonPath})};
      auto found = finding(
          Finding::Kind::interruptedTransfer, disk, entry.itemPath(), entry.copyPath(),
          recovery.kind == MigrationRecovery::Kind::finish || recovery.kind == MigrationRecovery::Kind::rollBack,
          journalKey(entry, recovery), std::move(arguments));
      found.journal = entry;
      findings.push_back(std::move(found));
    }
    for (const auto& path : MigrationJournal::abandonedFiles(disk))
      findings.push_back(
          finding(Finding::Kind::abandonedJournal, disk, path, {}, true, "doctor.journal.abandoned", {path}));
    for (const auto& path : listing.unreadable)
      findings.push_back(
          finding(Finding::Kind::unreadableJournal, disk, path, {}, false, "doctor.journal.unreadable", {path}));
  }

  bool journaled(std::string_view name, std::string_view marker) const {
    const auto id = uuidAfter(name, marker);
    return id && journalIds.count(*id);
  }

  // Leftovers in one folder: staging and rehearsal folders, originals kept beside their link.
  void leftoversIn(const std::string& folder) {
    for (const auto& name : namesIn(folder)) {
      const std::string path = joinPath(folder, name);
      if (isTransferStagingName(name) && !journaled(name, kTransferStagingPrefix)) {
        findings.push_back(
            finding(Finding::Kind::orphanStaging, disk, path, {}, false, "doctor.orphan.staging", {path}));
      } else if (name.starts_with(kRehearsalPrefix) && !journaled(name, kRehearsalPrefix)) {
        findings.push_back(
            finding(Finding::Kind::orphanRehearsal, disk, path, {}, true, "doctor.orphan.rehearsal", {path}));
      } else if (const auto at = name.find(kKeptMarker);
                 at != std::string::npos && uuidAfter(name, kKeptMarker) && !journaled(name, kKeptMarker)) {
        const std::string linkPlace = joinPath(folder, name.substr(0, at));
        findings.push_back(finding(Finding::Kind::keptOriginal, disk, path, linkPlace, true,
                                   "doctor.orphan.kept_original", {path, linkPlace}));
      }
    }
  }

  void recordsAndTheirPlaces() {
    records = recordsOf(disk);
    std::set<std::string> itemFolders;
    for (const auto& entry : MigrationJournal::list(disk).entries) itemFolders.insert(parentPath(entry.itemPath()));
    for (const auto& record : records) {
      const std::string target = standardizePath(record.targetPath);
      const std::string original = standardizePath(record.originalPath);
      recordedTargets.insert(target);
      if (!original.empty() && original.front() == '/') itemFolders.insert(parentPath(original));
      if (journaledItems.count(original)) continue;
      const auto copy = look(target);
      const auto item = look(original);
      if (!copy) {
        auto found = finding(Finding::Kind::copyMissing, disk, target, original, true, "doctor.record.copy_missing",
                             {record.appName, target});
        found.record = record;
        findings.push_back(std::move(found));
      } else if (item && item->kind != Kind::symbolicLink) {
        auto found = finding(Finding::Kind::replacedLink, disk, original, target, true, "doctor.record.replaced",
                             {original, target});
        found.record = record;
        findings.push_back(std::move(found));
      }
    }
    for (const auto& folder : itemFolders) leftoversIn(folder);
  }

  void adoptable(const std::string& copy, const std::string& linkPlace) {
    if (recordedTargets.count(copy)) return;
    auto link = look(linkPlace);
    if (link && link->kind == Kind::symbolicLink && link->link == copy) {
      findings.push_back(
          finding(Finding::Kind::unrecordedCopy, disk, copy, linkPlace, true, "doctor.copy.adopt", {copy, linkPlace}));
    }
  }

  void applications() {
    const std::string folder = joinPath(disk, "Applications");
    leftoversIn(folder);
    for (const auto& name : namesIn(folder)) {
      if (name.front() == '.' || !name.ends_with(".app") || name.find("_backup_") != std::string::npos) continue;
      const std::string copy = joinPath(folder, name);
      if (recordedTargets.count(copy)) continue;
      bool linked = false;
      for (const auto& place : configuration.applicationFolders) {
        const std::string linkPlace = joinPath(place, name);
        auto link = look(linkPlace);
        if (link && link->kind == Kind::symbolicLink && link->link == copy) {
          adoptable(copy, linkPlace);
          linked = true;
        }
      }
      if (!linked)
        findings.push_back(finding(Finding::Kind::unlinkedCopy, disk, copy, {}, false, "doctor.copy.unlinked", {copy}));
    }
  }

  // The Directories/ tree mirrors each item's original path. Returns whether `folder` holds
  // nothing but empty folders.
  bool directories(const std::string& folder, const std::string& mirrored, int depth) {
    leftoversIn(folder);
    bool empty = true;
    std::vector<std::pair<std::string, std::string>> emptyChildren;
    for (const auto& name : namesIn(folder)) {
      const std::string child = joinPath(folder, name);
      const std::string original = joinPath(mirrored, name);
      const auto entry = look(child);
      // Retained versions are the user's data, empty folders in them too.
      if (!isDirectory(entry) || name.front() == '.' || name.find("_backup_") != std::string::npos ||
          depth >= kDirectoriesDepth || recordedTargets.count(child)) {
        empty = false;
        continue;
      }
      const auto originalEntry = look(original);
      if (originalEntry && originalEntry->kind == Kind::symbolicLink && originalEntry->link == child) {
        adoptable(child, original);
        empty = false;
      } else if (directories(child, original, depth + 1)) {
        emptyChildren.emplace_back(child, original);
      } else {
        empty = false;
      }
    }
    // An empty chain is reported once, at its top; the Directories folder itself stays. It is
    // the mirror of folders that still stand on this system, as a move back or an uninstall
    // leaves it; empty folders mirroring nothing may be the inside of a copy and are left alone.
    if (!empty || depth == 0) {
      for (const auto& [child, original] : emptyChildren) {
        if (!isDirectory(look(original))) continue;
        findings.push_back(finding(Finding::Kind::emptyChain, disk, child, {}, true, "doctor.chain.empty", {child}));
      }
    }
    return empty;
  }
};

// Removes a tree made only of empty folders, deepest first; a folder that holds anything stops it.
void removeEmptyChain(const std::string& folder) {
  // Settling a transfer may already have removed it.
  if (!look(folder)) return;
  for (const auto& name : namesIn(folder)) {
    const std::string child = joinPath(folder, name);
    if (!isDirectory(look(child))) throw MigrationIssue("migration.safety.conflict", child);
    removeEmptyChain(child);
  }
  if (::rmdir(folder.c_str()) != 0) platform::throwErrno(folder);
}

void removeRecordOfMissingCopy(const DoctorFinding& finding) {
  const MigratedApp& record = *finding.record;
  if (look(record.targetPath)) throw MigrationIssue("migration.preflight.target_exists", record.targetPath);
  // The link goes with the record only when it is the link this program made to that copy, a
  // place on this disk (a record naming any other link's text must not make it go).
  MigrationFileSafety::requireDefinitePath(record.originalPath);
  const auto link = look(record.originalPath);
  const bool onThisDisk = standardizePath(record.targetPath).starts_with(finding.disk + "/");
  if (onThisDisk && link && link->kind == Kind::symbolicLink && link->link == record.targetPath) {
    if (::unlink(record.originalPath.c_str()) != 0) platform::throwErrno(record.originalPath);
  }
  AppManager::rewriteRecordFile(finding.disk, {}, [&](std::vector<MigratedApp>& apps) {
    std::erase_if(apps, [&](const MigratedApp& app) { return app.id == record.id; });
  });
}

void adoptCopy(const DoctorFinding& finding) {
  const auto link = look(finding.other);
  if (!link || link->kind != Kind::symbolicLink || link->link != finding.path || !look(finding.path))
    throw MigrationIssue("migration.preflight.restore_wrong_target", finding.other);
  AppManager::rewriteRecordFile(finding.disk, {}, [&](std::vector<MigratedApp>& apps) {
    if (std::any_of(apps.begin(), apps.end(),
                    [&](const MigratedApp& app) { return app.originalPath == finding.other; }))
      return;
    MigratedApp app;
    app.id = makeUuidString();
    app.appName = lastComponent(finding.other);
    app.originalPath = finding.other;
    app.targetPath = finding.path;
    app.migratedDate = ReferenceDate::now();
    app.itemType = finding.path.ends_with(".app") ? MigratedItemType::application : MigratedItemType::directory;
    apps.push_back(app);
  });
}

// A kept original goes only when the link beside it leads to a copy holding all it holds.
void removeKeptOriginal(const DoctorFinding& finding, DiskDoctor::Repair& repair) {
  const auto link = look(finding.other);
  if (!link || link->kind != Kind::symbolicLink)
    throw MigrationIssue("migration.preflight.restore_not_link", finding.other);
  const std::string text = link->link.value_or("");
  const std::string copy = !text.empty() && text.front() == '/' ? text : joinPath(parentPath(finding.other), text);
  MigrationFileSafety::requireInsideDisk(copy, {finding.disk});
  if (!MigrationJournalRecovery::holdsAllOf(copy, finding.path, finding.other)) {
    repair.leftInPlace.push_back(finding.path);
    throw MigrationIssue("error.migration_copy_mismatch", finding.path);
  }
  platform::removeTreeBelow(parentPath(finding.path), finding.path);
}

}  // namespace

DiskDoctor::Configuration DiskDoctor::Configuration::forThisSystem() {
  const std::string home = userHomeDirectory();
  Configuration configuration{VolumesRoots::forThisSystem(), {}, {}};
  configuration.applicationFolders = {"/Applications", joinPath(home, "Applications"), "/opt"};
  configuration.linkPlaces = {{"/Applications", 0}, {joinPath(home, "Applications"), 0}, {"/opt", 0}, {home, 2}};
  return configuration;
}

DiskDoctor::DiskDoctor(Configuration configuration) : configuration_(std::move(configuration)) {}

std::vector<DoctorFinding> DiskDoctor::examineDisk(const std::string& disk) const {
  const std::string root = standardizePath(disk);
  Examination examination{root, configuration_, {}, {}, {}, {}, {}};
  examination.journal();
  examination.recordsAndTheirPlaces();
  examination.applications();
  const std::string directories = joinPath(root, "Directories");
  if (isDirectory(look(directories))) examination.directories(directories, "/", 0);
  return std::move(examination.findings);
}

std::vector<DoctorFinding> DiskDoctor::examineAbsentDisks() const {
  std::vector<DoctorFinding> findings;
  std::set<std::string> seen;
  std::function<void(const std::string&, int)> visit = [&](const std::string& folder, int depth) {
    for (const auto& name : namesIn(folder)) {
      const std::string path = joinPath(folder, name);
      const auto entry = look(path);
      if (!entry) continue;
      if (entry->kind == Kind::directory && depth > 0 && name.front() != '.') visit(path, depth - 1);
      if (entry->kind != Kind::symbolicLink) continue;
      const std::string text = entry->link.value_or("");
      const auto volume = configuration_.roots.volumePathOf(text);
      if (!volume || platform::isMountPoint(*volume) || !seen.insert(path).second) continue;
      findings.push_back(finding(Finding::Kind::diskAbsent, *volume, path, text, false, "doctor.link.disk_absent",
                                 {path, text, lastComponent(*volume)}));
    }
  };
  for (const auto& [place, depth] : configuration_.linkPlaces) visit(place, depth);
  return findings;
}

DiskDoctor::Repair DiskDoctor::fix(const DoctorFinding& finding) const {
  Repair repair;
  try {
    switch (finding.kind) {
      case Finding::Kind::interruptedTransfer: {
        const auto outcome = MigrationJournalRecovery::resolve(*finding.journal);
        repair.leftInPlace = outcome.leftInPlace;
        if (!outcome.resolved) {
          repair.error =
              !outcome.error.empty() ? outcome.error
              : outcome.recovery.kind == MigrationRecovery::Kind::busy
                  ? localized("doctor.journal.busy_now")
                  : formatLocalizedText(localized(outcome.recovery.reasonKey), {outcome.recovery.reasonPath});
          return repair;
        }
        break;
      }
      case Finding::Kind::abandonedJournal:
        MigrationJournal::removeAbandonedFiles(finding.disk);
        break;
      case Finding::Kind::orphanRehearsal:
        if (!MigrationJournalRecovery::removeRehearsal(finding.path))
          throw MigrationIssue("migration.safety.conflict", finding.path);
        break;
      case Finding::Kind::keptOriginal:
        removeKeptOriginal(finding, repair);
        break;
      case Finding::Kind::copyMissing:
        removeRecordOfMissingCopy(finding);
        break;
      case Finding::Kind::unrecordedCopy:
        adoptCopy(finding);
        break;
      case Finding::Kind::emptyChain:
        MigrationFileSafety::requireInsideDisk(finding.path, {finding.disk});
        removeEmptyChain(finding.path);
        break;
      default:
        repair.error = localized("doctor.not_fixable");
        return repair;
    }
    repair.fixed = true;
  } catch (...) {
    repair.error = migrationErrorDescription(std::current_exception());
  }
  return repair;
}

}  // namespace corvane
