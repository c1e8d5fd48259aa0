#include "engine/transfer/migration_transfer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <mutex>
#include <set>

#include "engine/manifest/migration_copy_workload.h"
#include "engine/manifest/migration_link_plan.h"
#include "engine/migration_issue.h"
#include "engine/switch/migration_file_safety.h"
#include "engine/transfer/migration_destination_transaction.h"
#include "engine/transfer/migration_staging_area.h"
#include "engine/transfer/progress_file_copier.h"
#include "engine/verify/migration_entry_repair.h"
#include "engine/verify/migration_integrity_verifier.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"
#include "platform/volume.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {
namespace {

using Phase = MigrationItemProgress::Phase;

// Two operations in this process must never build the same destination at once.
class DestinationReservation {
 public:
  explicit DestinationReservation(std::string path) : path_(standardizePath(path)) {
    std::lock_guard lock(mutex());
    if (!reserved().insert(path_).second) throw MigrationIssue("error.migration_destination_in_use", path_);
  }
  ~DestinationReservation() {
    std::lock_guard lock(mutex());
    reserved().erase(path_);
  }
  DestinationReservation(const DestinationReservation&) = delete;
  DestinationReservation& operator=(const DestinationReservation&) = delete;

 private:
  static std::mutex& mutex() {
    static std::mutex instance;
    return instance;
  }
  static std::set<std::string>& reserved() {
    static std::set<std::string> instance;
    return instance;
  }
  std::string path_;
};

std::string describe(const std::exception_ptr& cause) {
  try {
    std::rethrow_exception(cause);
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "unknown failure";
  }
}

bool isApplicationBundle(const std::string& path) {
  const std::string name = lastComponent(path);
  return name.size() > 4 && name.compare(name.size() - 4, 4, ".app") == 0;
}

// Flushes everything written on the volume holding `directory`, and the directory itself (a
// rename is only durable once its directory is). An error here is final: a second flush can
// report success after the data was already lost.
void flushToMedium(const std::string& directory) {
  platform::UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) platform::throwErrno(directory);
  platform::flushFileSystem(fd.get(), directory);
  platform::flushDescriptor(fd.get(), directory);
  if (fd.close() != 0) platform::throwErrno(directory);
}

MigrationEntry requireDirectory(const std::string& path) {
  auto entry = MigrationEntry::read(path, AT_FDCWD);
  if (!entry || entry->kind != MigrationEntry::Kind::directory)
    throw MigrationIssue("migration.preflight.parent", path);
  return *entry;
}

}  // namespace

MigrationTransfer::MigrationTransfer(Configuration configuration) : configuration_(std::move(configuration)) {}

MigrationTransfer::Result MigrationTransfer::transfer(const std::string& source, const std::string& destination,
                                                      Placement placement, MigrationProgressTracker& tracker,
                                                      const std::string& name, RetainOriginal retainOriginal,
                                                      const std::function<void()>& preflight, const Log& log) {
  auto say = [&](const std::string& key, std::vector<std::string> arguments = {}) {
    if (log) log(key, arguments);
  };
  auto stopIfCancelled = [&] {
    if (configuration_.cancelled && configuration_.cancelled->load())
      throw MigrationIssue("migration.transfer.cancelled", source);
  };

  MigrationDestinationTransaction transaction(destination);
  std::unique_ptr<MigrationStagingArea> staging;
  std::unique_ptr<MigrationAccess> access;
  std::optional<DestinationReservation> reservation;
  MigrationPreflight::Plan plan;
  std::map<std::string, std::string> relocated;
  std::string originalKeptAt;
  std::optional<MigrationEntry> restoreLink;

  try {
    tracker.setPhase(name, Phase::preparing);
    if (preflight) preflight();

    // 1. Where from, where to.
    if (!MigrationEntry::read(source, AT_FDCWD)) throw MigrationIssue("error.migration_source_changed", source);
    if (placement == Placement::restore) {
      // The link is expected to lead to the source; the folder it stands in must lie apart from it.
      MigrationIntegrityVerifier::validateLocations(source, parentPath(destination));
      restoreLink = MigrationFileSafety::requireRestoreLink(destination, source);
    } else {
      MigrationIntegrityVerifier::validateLocations(source, destination);
    }
    if (placement == Placement::migrate && MigrationEntry::read(destination, AT_FDCWD)) {
      throw MigrationIssue("migration.preflight.target_exists", destination);
    }
    reservation.emplace(destination);

    // 2. The old location must allow the switch.
    tracker.setPhase(name, Phase::checking);
    say("migration.preflight.checking", {name});
    access = configuration_.makeAccess(placement == Placement::migrate ? source : destination);
    access->prepare();

    // 3. Scan, classify runtime entries, ask about blockers, check open files.
    plan = MigrationPreflight::plan(
        source, [&](const std::string& relative) { tracker.scanned(name, relative); }, *configuration_.prompter,
        configuration_.services);
    say("migration.occupancy.checking_identity", {name});
    if (configuration_.checkUsage) configuration_.checkUsage(source, plan.manifest);

    // 4. What the copy involves.
    relocated = MigrationLinkPlan::relocatedTargets(source, plan.manifest);
    if (!plan.inactiveSockets.empty())
      say("migration.preflight.omitted", {std::to_string(plan.inactiveSockets.size())});
    if (!relocated.empty()) say("migration.preflight.links_preserved", {std::to_string(relocated.size())});
    const MigrationCopyWorkload workload(plan.manifest, plan.inactiveSockets);
    tracker.plan(name, workload);
    tracker.setMeasurable(name, workload.bytes > 0);

    // 5. The destination volume must hold links and permissions, and the data.
    const std::string parent = parentPath(destination);
    const MigrationEntry parentEntry = requireDirectory(parent);
    const auto capabilities = platform::volumeCapabilities(parent);
    if (!capabilities.symbolicLinks || !capabilities.accessPermissions) {
      throw MigrationIssue("migration.preflight.filesystem", parent);
    }
    if (platform::availableCapacity(parent) < workload.bytes) throw MigrationIssue("migration.preflight.space", parent);

    // 6, 7. Copy into a private staging directory.
    staging = std::make_unique<MigrationStagingArea>(source, destination, parent);
    tracker.setPhase(name, Phase::copying);
    say("migration.transfer.copying", {name});
    ProgressFileCopier::copy(
        source, staging->payload(), plan.manifest, plan.inactiveSockets, relocated, *staging,
        [&](const MigrationCopyUpdate& update) { tracker.copied(name, update.bytes, update.entries, update.path); },
        [&] { return configuration_.cancelled && configuration_.cancelled->load(); });
    stopIfCancelled();

    // 8. Verify from the medium, repairing once.
    tracker.setPhase(name, Phase::verifying);
    say("log.verification_start", {name});
    MigrationVerificationOptions options;
    options.repair = MigrationEntryRepair::rebuild;
    options.inactiveSockets = plan.inactiveSockets;
    options.relocated = relocated;
    options.progress = [&](const MigrationVerificationProgress& progress) {
      stopIfCancelled();
      tracker.verified(name, progress.bytes, progress.entries, progress.relativePath);
    };
    options.repaired = [&](const std::string& relative) {
      staging->recordCreated(relative.empty() ? staging->payload() : staging->payload() + "/" + relative);
    };
    MigrationIntegrityVerifier::verify(source, staging->payload(), plan.manifest, options);
    if (requireDirectory(parent).identity() != parentEntry.identity())
      throw MigrationIssue("migration.preflight.parent", parent);
    say("log.verification_success", {name});

    // 9. A bundle without its Info.plist is not a whole application.
    if (isApplicationBundle(destination) &&
        !MigrationEntry::read(staging->payload() + "/Contents/Info.plist", AT_FDCWD)) {
      throw MigrationIssue("log.symlink_incomplete", name);
    }

    // 10. Nothing changed and nothing started using the item meanwhile.
    say("migration.occupancy.final_check", {name});
    MigrationIntegrityVerifier::requireUnchanged(source, plan.manifest);
    MigrationPreflight::requireRuntimeIdle(source, plan.manifest, plan.inactiveSockets, configuration_.services.probe);
    const auto stagedRoot = MigrationEntry::read(staging->payload(), AT_FDCWD);
    const std::string payloadKey = lastComponent(staging->payload());
    if (!stagedRoot || !staging->owned().count(payloadKey) ||
        staging->owned().at(payloadKey).identity() != stagedRoot->identity()) {
      throw MigrationIssue("error.migration_copy_mismatch", staging->payload());
    }

    // 11, 12. Durable first, then promote and switch.
    tracker.setPhase(name, Phase::switching);
    flushToMedium(staging->root());
    if (placement == Placement::migrate) {
      transaction.promote(staging->payload());
      flushToMedium(parent);
      originalKeptAt = access->install(
          destination, configuration_.beforeCommit ? configuration_.beforeCommit : [] {});
      say("log.symlink_success", {name});
    } else {
      access->restore(
          *stagedRoot, staging->payload(), configuration_.beforeCommit ? configuration_.beforeCommit : [] {});
      staging->receivedLinkAfterRestore(*restoreLink);
      flushToMedium(parent);
      say("log.migrate_back_swap_success", {name});
    }
  } catch (...) {
    const std::exception_ptr cause = std::current_exception();
    logInfo("Migration error: " + describe(cause));
    std::optional<std::string> cleanupPath;
    if (staging) {
      tracker.setPhase(name, Phase::rollingBack);
      try {
        transaction.rollback(staging->payload());
      } catch (const std::exception& error) {
        logWarning(std::string("roll-back of the destination stopped: ") + error.what());
        say("migration.safety.cleanup_stopped", {destination});
        cleanupPath = destination;
      }
      tracker.setPhase(name, Phase::cleaning);
      say("migration.safety.cleaning", {name});
      try {
        staging->discardAfterRollback();
        if (!cleanupPath) say("migration.safety.rolled_back", {name});
      } catch (const std::exception& error) {
        logWarning(std::string("staging removal stopped: ") + error.what());
        say("migration.safety.cleanup_stopped", {staging->root()});
        if (!cleanupPath) cleanupPath = staging->root();
      }
    }
    tracker.setPhase(name, Phase::failed);
    throw Failure(cause, cleanupPath, describe(cause));
  }

  // 13. The switch stands; what remains is tidying up, which never undoes it.
  tracker.setPhase(name, Phase::cleaning);
  Result result;
  auto retain = [&](const std::string& path) {
    result.retainedSource = true;
    result.retentionReason = "migration.transfer.source_retained";
    result.retainedPath = path;
  };
  const std::string replaced = placement == Placement::migrate ? originalKeptAt : source;
  if (retainOriginal == RetainOriginal::yes) {
    retain(replaced);
  } else {
    try {
      if (placement == Placement::migrate) {
        access->cleanupBackup(originalKeptAt, plan.manifest, plan.inactiveSockets, relocated);
      } else {
        auto restored = MigrationEntry::read(destination, AT_FDCWD);
        if (!restored) throw MigrationIssue("error.migration_restore_conflict", destination);
        access->cleanupRestoredSource(source, plan.manifest, plan.inactiveSockets, relocated, destination, *restored);
      }
    } catch (const std::exception& error) {
      logWarning(std::string("the replaced data stays: ") + error.what());
      retain(replaced);
    }
  }

  // 14.
  try {
    staging->finish();
  } catch (const std::exception& error) {
    logWarning(std::string("staging directory stays: ") + error.what());
    say("migration.safety.cleanup_stopped", {staging->root()});
  }
  tracker.setPhase(name, Phase::done);
  return result;
}

}  // namespace corvane
