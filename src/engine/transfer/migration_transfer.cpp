#include "engine/transfer/migration_transfer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <mutex>
#include <set>

#include "engine/manifest/migration_copy_workload.h"
#include "engine/manifest/migration_link_plan.h"
#include "engine/migration_failure.h"
#include "engine/migration_issue.h"
#include "engine/switch/migration_file_safety.h"
#include "engine/switch/migration_source_switch.h"
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
#include "support/uuid.h"

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

// One item's way through the fourteen steps. Each step is one member function, called in
// order; the state they pass on to each other lives in the members.
class TransferRun {
 public:
  TransferRun(const MigrationTransfer::Configuration& configuration, const MigrationTransfer::Request& request)
      : configuration_(configuration),
        request_(request),
        tracker_(request.tracker),
        name_(request.name),
        transaction_(request.destination),
        transferID_(request.journal ? request.journal->id() : makeUuidString()) {}

  MigrationTransfer::Result run() {
    try {
      tracker_.setPhase(name_, Phase::preparing);
      if (request_.preflight) request_.preflight();
      resolveLocations();
      prepareOldLocation();
      scanAndCheckUsage();
      planCopy();
      checkDestinationVolume();
      createStagingArea();
      copyIntoStaging();
      verifyFromMedium();
      requireWholeBundle();
      requireUnchangedAndIdle();
      flushStaging();
      promoteAndSwitch();
    } catch (...) {
      const std::exception_ptr cause = std::current_exception();
      const std::string description = migrationErrorDescription(cause);
      logInfo("Migration error: " + description);
      if (const auto kept = keptAfterSwitch(cause)) failAfterSwitch(cause, *kept);
      const std::optional<std::string> cleanupPath = rollBack();
      // A roll-back that left something keeps the journal entry, so a later run can finish it.
      if (!cleanupPath) closeJournalQuietly();
      tracker_.setPhase(name_, Phase::failed);
      throw MigrationTransfer::Failure(cause, cleanupPath, description);
    }
    if (configuration_.afterSwitch) configuration_.afterSwitch();
    MigrationTransfer::Result result = tidyUpReplacedData();
    markQuietly(MigrationJournal::Step::replacedRemoved);
    finishStaging();
    markQuietly(MigrationJournal::Step::stagingRemoved);
    tracker_.setPhase(name_, Phase::done);
    return result;
  }

 private:
  bool migrating() const { return request_.placement == MigrationTransfer::Placement::migrate; }

  void say(const std::string& key, std::vector<std::string> arguments = {}) const {
    if (request_.log) request_.log(key, arguments);
  }

  // Before the switch a journal that cannot be written stops the transfer, which rolls back.
  void mark(const char* step) {
    if (request_.journal) request_.journal->mark(step);
  }

  // After the switch nothing is undone for want of a journal line: the entry stays behind at an
  // earlier step, and whoever resolves it reads the file system, not only the step.
  void markQuietly(const char* step) noexcept {
    try {
      mark(step);
    } catch (const std::exception& error) {
      logWarning(std::string("journal not updated: ") + error.what());
    }
  }

  void closeJournalQuietly() noexcept {
    try {
      if (request_.journal) request_.journal->close();
    } catch (const std::exception& error) {
      logWarning(std::string("journal entry stays: ") + error.what());
    }
  }

  bool cancelled() const { return configuration_.cancelled && configuration_.cancelled->load(); }

  void stopIfCancelled() const {
    if (cancelled()) throw MigrationIssue("migration.transfer.cancelled", request_.source);
  }

  const std::function<void()>& beforeCommit() const {
    static const std::function<void()> nothing = [] {};
    return configuration_.beforeCommit ? configuration_.beforeCommit : nothing;
  }

  // 1. Where from, where to.
  void resolveLocations() {
    const std::string& source = request_.source;
    const std::string& destination = request_.destination;
    if (!MigrationEntry::read(source, AT_FDCWD)) throw MigrationIssue("error.item_not_found", source);
    // A move-back's copy was claimed by the operation that runs it.
    if (migrating()) MigrationFileSafety::claimItem(source, itemClaim_);
    if (migrating()) {
      MigrationIntegrityVerifier::validateLocations(source, destination);
      if (MigrationEntry::read(destination, AT_FDCWD))
        throw MigrationIssue("migration.preflight.target_exists", destination);
    } else {
      // The link is expected to lead to the source; the folder it stands in must lie apart from it.
      MigrationIntegrityVerifier::validateLocations(source, parentPath(destination));
      restoreLink_ = MigrationFileSafety::requireRestoreLink(destination, source);
    }
    reservation_.emplace(destination);
    parent_ = parentPath(destination);
  }

  // 2. The old location must allow the switch.
  void prepareOldLocation() {
    tracker_.setPhase(name_, Phase::checking);
    say("migration.preflight.checking", {name_});
    access_ = configuration_.makeAccess(migrating() ? request_.source : request_.destination);
    if (request_.journal) {
      const auto source = MigrationEntry::read(request_.source, AT_FDCWD);
      if (!source) throw MigrationIssue("error.migration_source_changed", request_.source);
      request_.journal->open(request_.source, request_.destination, request_.retainOriginal == RetainOriginal::yes,
                             source->identity());
    }
    access_->prepare(transferID_);
    mark(MigrationJournal::Step::rehearsed);
  }

  // 3. Scan, classify runtime entries, ask about blockers, check open files.
  void scanAndCheckUsage() {
    plan_ = MigrationPreflight::plan(
        request_.source, [&](const std::string& relative) { tracker_.scanned(name_, relative); },
        *configuration_.prompter, configuration_.services);
    say("migration.occupancy.checking_identity", {name_});
    if (configuration_.checkUsage) configuration_.checkUsage(request_.source, plan_.manifest);
  }

  // 4. What the copy involves.
  void planCopy() {
    relocated_ = MigrationLinkPlan::relocatedTargets(request_.source, plan_.manifest);
    if (!plan_.inactiveSockets.empty())
      say("migration.preflight.omitted", {std::to_string(plan_.inactiveSockets.size())});
    if (!relocated_.empty()) say("migration.preflight.links_preserved", {std::to_string(relocated_.size())});
    const MigrationCopyWorkload workload(plan_.manifest, plan_.inactiveSockets);
    tracker_.plan(name_, workload);
    tracker_.setMeasurable(name_, workload.bytes > 0);
    bytesToCopy_ = workload.bytes;
  }

  // 5. The destination volume must hold links and permissions, and the data.
  void checkDestinationVolume() {
    parentEntry_ = requireDirectory(parent_);
    const auto capabilities = platform::volumeCapabilities(parent_);
    if (!capabilities.symbolicLinks || !capabilities.accessPermissions) {
      throw MigrationIssue("migration.preflight.filesystem", parent_);
    }
    if (platform::availableCapacity(parent_) < bytesToCopy_) throw MigrationIssue("migration.preflight.space", parent_);
  }

  // 6. A private staging directory beside the destination.
  void createStagingArea() {
    staging_ = std::make_unique<MigrationStagingArea>(request_.source, request_.destination, parent_, &plan_.manifest,
                                                      transferID_);
    if (request_.journal) request_.journal->setStagingIdentity(*staging_->recordedIdentity(staging_->root()));
    mark(MigrationJournal::Step::stagingCreated);
  }

  void notePayloadIdentity() {
    if (!request_.journal) return;
    if (const auto payload = staging_->recordedIdentity(staging_->payload()))
      request_.journal->setPayloadIdentity(*payload);
  }

  // 7. Copy into it.
  void copyIntoStaging() {
    tracker_.setPhase(name_, Phase::copying);
    say("migration.transfer.copying", {name_});
    ProgressFileCopier::copy(
        request_.source, staging_->payload(), plan_.manifest, plan_.inactiveSockets, relocated_, *staging_,
        [&](const MigrationCopyUpdate& update) { tracker_.copied(name_, update.bytes, update.entries, update.path); },
        [&] { return cancelled(); });
    notePayloadIdentity();
    mark(MigrationJournal::Step::copied);
    if (configuration_.afterCopy) configuration_.afterCopy(staging_->payload());
    stopIfCancelled();
  }

  // 8. Verify from the medium, repairing once.
  void verifyFromMedium() {
    tracker_.setPhase(name_, Phase::verifying);
    say("log.verification_start", {name_});
    MigrationVerificationOptions options;
    options.repair = MigrationEntryRepair::rebuild;
    options.inactiveSockets = plan_.inactiveSockets;
    options.relocated = relocated_;
    options.progress = [&](const MigrationVerificationProgress& progress) {
      stopIfCancelled();
      tracker_.verified(name_, progress.bytes, progress.entries, progress.relativePath);
    };
    options.repaired = [&](const std::string& relative) {
      staging_->recordRepaired(relative.empty() ? staging_->payload() : staging_->payload() + "/" + relative);
      say("migration.transfer.repaired", {relative.empty() ? name_ : relative});
    };
    MigrationIntegrityVerifier::verify(request_.source, staging_->payload(), plan_.manifest, options);
    if (requireDirectory(parent_).identity() != parentEntry_.identity())
      throw MigrationIssue("migration.preflight.parent", parent_);
    say("log.verification_success", {name_});
    // A repair may have rebuilt the copy's top entry.
    notePayloadIdentity();
    mark(MigrationJournal::Step::verified);
  }

  // 9. A bundle without its Info.plist is not a whole application.
  void requireWholeBundle() const {
    if (isApplicationBundle(request_.destination) &&
        !MigrationEntry::read(staging_->payload() + "/Contents/Info.plist", AT_FDCWD)) {
      throw MigrationIssue("log.symlink_incomplete", name_);
    }
  }

  // 10. Nothing changed and nothing started using the item meanwhile.
  void requireUnchangedAndIdle() {
    say("migration.occupancy.final_check", {name_});
    MigrationIntegrityVerifier::requireUnchanged(request_.source, plan_.manifest);
    MigrationPreflight::requireRuntimeIdle(request_.source, plan_.manifest, plan_.inactiveSockets,
                                           configuration_.services.probe);
    stagedRoot_ = MigrationEntry::read(staging_->payload(), AT_FDCWD);
    if (!stagedRoot_ || staging_->recordedIdentity(staging_->payload()) != stagedRoot_->identity()) {
      throw MigrationIssue("error.migration_copy_mismatch", staging_->payload());
    }
  }

  // 11. Durable first,
  void flushStaging() {
    tracker_.setPhase(name_, Phase::switching);
    flushToMedium(staging_->root());
    mark(MigrationJournal::Step::flushed);
  }

  // 12. then promote and switch.
  void promoteAndSwitch() {
    if (migrating()) {
      transaction_.promote(staging_->payload());
      flushToMedium(parent_);
      mark(MigrationJournal::Step::promoted);
      originalKeptAt_ = access_->install(request_.destination, beforeCommit(), transferID_);
      switched_ = true;
      markQuietly(MigrationJournal::Step::switched);
      say("log.symlink_success", {name_});
    } else {
      access_->restore(*stagedRoot_, staging_->payload(), beforeCommit());
      // The item's path holds the data and the staging area the old link from here on.
      switched_ = true;
      markQuietly(MigrationJournal::Step::switched);
      staging_->receivedLinkAfterRestore(*restoreLink_);
      flushToMedium(parent_);
      say("log.migrate_back_swap_success", {name_});
    }
  }

  // Where the replaced object lies when the failure came after the exchange: the original's
  // temporary name on a migration, the staging area holding the old link on a move-back.
  std::optional<std::string> keptAfterSwitch(const std::exception_ptr& cause) const {
    if (switched_) return migrating() ? originalKeptAt_ : staging_->root();
    try {
      std::rethrow_exception(cause);
    } catch (const MigrationSwitchStands& stands) {
      return stands.kept();
    } catch (...) {
      return std::nullopt;
    }
  }

  // After the exchange a roll-back would be blind: the copy may be all the item's path leads to.
  // Everything stays where it is, and the failure says where that is.
  [[noreturn]] void failAfterSwitch(const std::exception_ptr& cause, const std::string& kept) {
    tracker_.setPhase(name_, Phase::failed);
    const std::string reason = migrationErrorDescription(cause);
    const MigrationIssue standing =
        migrating()
            ? MigrationIssue("migration.safety.switch_stands", {request_.source, request_.destination, kept, reason})
            : MigrationIssue("migration.safety.move_back_stands", {request_.destination, request_.source, reason});
    throw MigrationTransfer::Failure(std::make_exception_ptr(standing), kept, standing.localizedDescription());
  }

  // Before the switch: the destination and the staging area go again. Returns a path that could
  // not be cleaned up, when there is one.
  std::optional<std::string> rollBack() {
    if (!staging_) return std::nullopt;
    std::optional<std::string> cleanupPath;
    tracker_.setPhase(name_, Phase::rollingBack);
    try {
      transaction_.rollback(staging_->payload());
    } catch (const std::exception& error) {
      logWarning(std::string("roll-back of the destination stopped: ") + error.what());
      say("migration.safety.cleanup_stopped", {request_.destination});
      cleanupPath = request_.destination;
    }
    tracker_.setPhase(name_, Phase::cleaning);
    say("migration.safety.cleaning", {name_});
    try {
      staging_->discardAfterRollback();
      if (!cleanupPath) say("migration.safety.rolled_back", {name_});
    } catch (const std::exception& error) {
      logWarning(std::string("staging removal stopped: ") + error.what());
      say("migration.safety.cleanup_stopped", {staging_->root()});
      if (!cleanupPath) cleanupPath = staging_->root();
    }
    return cleanupPath;
  }

  // 13. The switch stands; what remains is tidying up, which never undoes it.
  MigrationTransfer::Result tidyUpReplacedData() {
    tracker_.setPhase(name_, Phase::cleaning);
    MigrationTransfer::Result result;
    const std::string replaced = migrating() ? originalKeptAt_ : request_.source;
    auto retain = [&] {
      result.retainedSource = true;
      result.retentionReason = "migration.transfer.source_retained";
      result.retainedPath = replaced;
    };
    if (request_.retainOriginal == RetainOriginal::yes) {
      retain();
      return result;
    }
    try {
      if (migrating()) {
        access_->cleanupBackup(originalKeptAt_, plan_.manifest, plan_.inactiveSockets, relocated_);
      } else {
        // The copy that was verified and exchanged, as it was known before the exchange: what
        // stands at the destination now must still be that object for the disk's copy to go.
        access_->cleanupRestoredSource(request_.source, plan_.manifest, plan_.inactiveSockets, relocated_,
                                       request_.destination, *stagedRoot_);
      }
    } catch (const std::exception& error) {
      logWarning(std::string("the replaced data stays: ") + error.what());
      retain();
    }
    return result;
  }

  // 14. The staging directory goes; one left behind is named, never a failure.
  void finishStaging() {
    try {
      staging_->finish();
    } catch (const std::exception& error) {
      logWarning(std::string("staging directory stays: ") + error.what());
      say("migration.safety.cleanup_stopped", {staging_->root()});
    }
  }

  const MigrationTransfer::Configuration& configuration_;
  const MigrationTransfer::Request& request_;
  MigrationProgressTracker& tracker_;
  const std::string& name_;
  MigrationDestinationTransaction transaction_;
  platform::UniqueFd itemClaim_;
  std::optional<DestinationReservation> reservation_;
  std::string parent_;
  MigrationEntry parentEntry_;
  std::optional<MigrationEntry> restoreLink_;
  std::unique_ptr<MigrationAccess> access_;
  MigrationPreflight::Plan plan_;
  std::map<std::string, std::string> relocated_;
  std::int64_t bytesToCopy_ = 0;
  std::unique_ptr<MigrationStagingArea> staging_;
  std::optional<MigrationEntry> stagedRoot_;
  std::string transferID_;
  std::string originalKeptAt_;
  bool switched_ = false;
};

}  // namespace

MigrationTransfer::MigrationTransfer(Configuration configuration) : configuration_(std::move(configuration)) {}

MigrationTransfer::Result MigrationTransfer::transfer(const Request& request) {
  return TransferRun(configuration_, request).run();
}

}  // namespace corvane
