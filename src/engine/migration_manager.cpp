#include "engine/migration_manager.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <mutex>
#include <semaphore>
#include <thread>

#include "catalogue/migrated_apps_file.h"
#include "catalogue/migrated_backup_catalog.h"
#include "catalogue/protected_locations.h"
#include "engine/journal/migration_journal_recovery.h"
#include "engine/migration_failure.h"
#include "engine/migration_issue.h"
#include "engine/migration_previous_copy.h"
#include "engine/preflight/migration_destination_check.h"
#include "engine/preflight/migration_open_files.h"
#include "engine/preflight/migration_selection_validator.h"
#include "engine/preflight/simulator_migration_preflight.h"
#include "platform/file_system.h"
#include "platform/item_processes.h"
#include "platform/posix_error.h"
#include "platform/volume.h"
#include "settings/localization.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"
#include "support/update_activity.h"
#include "support/uuid.h"

namespace corvane {
namespace {

bool isApplication(const std::string& path) {
  const std::string name = lastComponent(path);
  return name.size() > 4 && name.compare(name.size() - 4, 4, ".app") == 0;
}

// Makes the missing directories above `path`, returning those it made (outermost first).
std::vector<std::string> makeParents(const std::string& path) {
  std::vector<std::string> made;
  std::string partial;
  const auto components = pathComponents(parentPath(path));
  for (const auto& component : components) {
    partial += "/" + component;
    if (mkdir(partial.c_str(), 0755) == 0) {
      made.push_back(partial);
    } else if (errno != EEXIST) {
      platform::throwErrno(partial);
    }
  }
  return made;
}

void removeEmptyParents(const std::vector<std::string>& made) {
  for (auto it = made.rbegin(); it != made.rend(); ++it) rmdir(it->c_str());
}

const std::set<std::string> kSpecialApplications = {"Visual Studio Code.app", "Sublime Text.app"};

}  // namespace

struct MigrationManager::Batch {
  std::vector<std::string> apps;
  std::string disk;
  std::string runID;
  std::vector<MigratedApp> records;
  std::unique_ptr<MigrationProgressTracker> tracker;
  std::unique_ptr<MigrationBatchProgress> progress;
  std::unique_ptr<std::counting_semaphore<64>> slots;
  std::vector<std::thread> workers;
  std::thread driver;
  std::mutex mutex;
  std::vector<std::optional<ItemOutcome>> outcomes;
  // One per item: why the item may not be moved at all.
  std::vector<std::optional<SelectionRefusal>> refusals;
  // One per item that reached its transfer: closed once the item's record is written.
  std::vector<std::shared_ptr<MigrationJournal>> journals;
  // One per item: its previous copy on the disk, kept as a version because the item at the
  // record's place is no longer the link to it.
  std::vector<std::optional<std::string>> retiredCopies;
  std::unique_ptr<UpdateActivityScope> activity;
};

MigrationManager::MigrationManager(MainQueue& mainQueue, AppManager& appManager, Hooks hooks)
    : mainQueue_(mainQueue), appManager_(appManager), hooks_(std::move(hooks)) {}

MigrationManager::~MigrationManager() {
  if (running_ && running_->driver.joinable()) running_->driver.join();
}

std::string MigrationManager::destinationFor(const std::string& source, const std::string& disk) {
  const std::string standardized = standardizePath(source);
  if (isApplication(standardized)) return joinPath(joinPath(disk, "Applications"), lastComponent(standardized));
  return joinPath(joinPath(disk, "Directories"), standardized.substr(1));
}

MigrationManager::LinkState MigrationManager::linkState(const std::string& source, const std::string& expectedTarget) {
  auto entry = MigrationEntry::read(source, AT_FDCWD);
  if (!entry || entry->kind != MigrationEntry::Kind::symbolicLink) return LinkState::notALink;
  const std::string linked = resolvingSymlinksInPath(source);
  const std::string expected = resolvingSymlinksInPath(expectedTarget);
  return linked == expected ? LinkState::pointsAtTarget : LinkState::pointsElsewhere;
}

bool MigrationManager::migrateApps(const std::vector<std::string>& apps, const std::string& disk) {
  if (isMigrating_) return false;
  // A move-back or restore replaces the link under the batch's feet: the two never overlap.
  for (const auto& app : apps) {
    if (migratingBackItems_.count(standardizePath(app))) {
      appendItemLog(lastComponent(app), "log.migrate_back_in_progress", {});
      return false;
    }
  }
  // A protected item is refused on its own; the rest of the batch goes on.
  MigrationSelectionValidator validator([locations = ProtectedLocations::forCurrentUser()](const std::string& path) {
    return locations.isProtected(path);
  });
  auto batch = std::make_shared<Batch>();
  for (const auto& app : apps) {
    batch->apps.push_back(standardizePath(app));
    batch->refusals.push_back(validator.validate(batch->apps.back()));
  }
  batch->disk = standardizePath(disk);
  batch->runID = makeUuidString();
  progressRunID_ = batch->runID;
  std::vector<MigrationItemProgress> items;
  for (const auto& app : batch->apps) {
    MigrationItemProgress item;
    item.name = app;
    items.push_back(item);
  }
  batch->tracker = std::make_unique<MigrationProgressTracker>(items);
  batch->progress = std::make_unique<MigrationBatchProgress>(static_cast<std::int64_t>(apps.size()));
  batch->slots = std::make_unique<std::counting_semaphore<64>>(
      static_cast<std::ptrdiff_t>(std::clamp<std::size_t>(hooks_.maximumInFlight, 1, 64)));
  batch->outcomes.resize(apps.size());
  batch->journals.resize(apps.size());
  batch->retiredCopies.resize(apps.size());
  batch->activity = std::make_unique<UpdateActivityScope>();
  outcomes_.clear();
  // Records are saved by merging into the list in memory: it must hold the disk's records first.
  appManager_.loadMigratedApps(batch->disk);
  mainQueue_.runPending();
  snapshot_ = batch->progress->snapshot();
  isMigrating_ = true;
  running_ = batch;
  appendLogNow(logLine("", "log.migration_start", {}));
  if (!progressObservers_.empty()) batch->tracker->start(progressPublisher());
  batch->driver = std::thread([this, batch] { perform(batch); });
  return true;
}

void MigrationManager::recoverInterrupted(
    const std::string& disk, const std::function<void(const std::string&, const std::vector<std::string>&)>& log) {
  std::vector<MigrationJournalRecovery::Outcome> outcomes;
  try {
    outcomes = MigrationJournalRecovery::resolveAll(disk);
  } catch (const std::exception& error) {
    logWarning(std::string("the disk's journal cannot be read: ") + error.what());
    return;
  }
  for (const auto& outcome : outcomes) {
    const std::string& name = outcome.entry.name;
    if (!outcome.error.empty()) {
      log("recovery.failed", {name, outcome.error});
    } else if (outcome.recovery.kind == MigrationRecovery::Kind::busy) {
      log("recovery.busy", {name});
    } else if (outcome.recovery.kind == MigrationRecovery::Kind::stuck) {
      log("recovery.stuck",
          {name, formatLocalizedText(localized(outcome.recovery.reasonKey), {outcome.recovery.reasonPath})});
    } else {
      log(outcome.recovery.kind == MigrationRecovery::Kind::finish ? "recovery.finished" : "recovery.rolled_back",
          {name});
    }
    for (const auto& path : outcome.leftInPlace) log("recovery.left_in_place", {path});
  }
}

void MigrationManager::perform(std::shared_ptr<Batch> batch) {
  // A transfer killed on this disk earlier is settled before any item is judged by what it left.
  recoverInterrupted(batch->disk, [&](const std::string& key, const std::vector<std::string>& arguments) {
    appendLog(batch->runID, "", key, arguments);
  });
  batch->records = AppManager::loadRecords(batch->disk);
  for (std::size_t index = 0; index < batch->apps.size(); ++index) {
    const std::string& source = batch->apps[index];
    const std::string name = lastComponent(source);
    const std::string target = destinationFor(source, batch->disk);
    const MigratedApp* record = nullptr;
    for (const auto& candidate : batch->records) {
      if (standardizePath(candidate.originalPath) == source) record = &candidate;
    }
    if (const auto& refusal = batch->refusals[index]) {
      appendLog(batch->runID, name, "migration.preflight.selection_protected", {source});
      batch->tracker->setPhase(source, MigrationItemProgress::Phase::failed);
      std::lock_guard lock(batch->mutex);
      batch->outcomes[index] =
          ItemOutcome{source, name, target, ItemOutcome::Kind::failed, refusal->localizedDescription, {}, {}};
      batch->progress->finish(static_cast<std::int64_t>(index), MigrationBatchProgress::Outcome::failed);
      continue;
    }
    const LinkState state = linkState(source, target);
    if (state == LinkState::pointsAtTarget && !record && MigrationEntry::read(target, AT_FDCWD)) {
      // The item was moved but its record never written (a run stopped in between): the link
      // proves it, and the record is all that is missing.
      appendLog(batch->runID, name, "log.symlink_exists", {});
      appendLog(batch->runID, name, "recovery.record_adopted", {});
      batch->tracker->setPhase(source, MigrationItemProgress::Phase::done);
      ItemOutcome adopted{source, name, target, ItemOutcome::Kind::succeeded, {}, {}, {}};
      {
        std::lock_guard lock(batch->mutex);
        batch->outcomes[index] = adopted;
        batch->progress->finish(static_cast<std::int64_t>(index), MigrationBatchProgress::Outcome::succeeded);
      }
      saveRecord(batch, index, adopted);
      continue;
    }
    if (state == LinkState::pointsAtTarget) {
      appendLog(batch->runID, name, "log.symlink_exists", {});
      appendLog(batch->runID, name, "log.migrate_item_skip", {});
      appendLog(batch->runID, name, "log.migrate_already_done", {});
      batch->tracker->setPhase(source, MigrationItemProgress::Phase::skipped);
      std::lock_guard lock(batch->mutex);
      batch->outcomes[index] =
          ItemOutcome{source, name, target, ItemOutcome::Kind::skipped, localized("log.migrate_already_done"), {}, {}};
      batch->progress->finish(static_cast<std::int64_t>(index), MigrationBatchProgress::Outcome::skipped);
      continue;
    }
    if (state == LinkState::pointsElsewhere) {
      // Someone else's link: nothing of ours to move, and nothing wrong with the batch.
      appendLog(batch->runID, name, "log.symlink_invalid", {});
      appendLog(batch->runID, name, "log.migrate_item_skip", {});
      batch->tracker->setPhase(source, MigrationItemProgress::Phase::skipped);
      std::lock_guard lock(batch->mutex);
      batch->outcomes[index] =
          ItemOutcome{source, name, target, ItemOutcome::Kind::skipped, localized("log.symlink_invalid"), {}, {}};
      batch->progress->finish(static_cast<std::int64_t>(index), MigrationBatchProgress::Outcome::skipped);
      continue;
    }
    if (record) appendLog(batch->runID, name, "log.record_inconsistent", {});
    batch->slots->acquire();
    batch->workers.emplace_back([this, batch, index] { runItem(batch, index); });
  }
  for (auto& worker : batch->workers) worker.join();
  batch->tracker->stop();
  post(batch->runID, [this, batch] { finishBatch(batch); });
}

void MigrationManager::runItem(const std::shared_ptr<Batch>& batch, std::size_t index) {
  const std::string source = batch->apps[index];
  const std::string name = lastComponent(source);
  ItemOutcome outcome;
  auto running = platform::processesExecutingWithin(source);
  std::vector<pid_t> pids;
  for (const auto& process : running) pids.push_back(process.pid);
  if (!pids.empty() && !(hooks_.closeRunningApp && hooks_.closeRunningApp(source, name, pids))) {
    appendLog(batch->runID, name, "log.migrate_item_skip", {});
    outcome = ItemOutcome{source,
                          name,
                          destinationFor(source, batch->disk),
                          ItemOutcome::Kind::skipped,
                          localized("migration.running_app_skipped"),
                          {},
                          {}};
    batch->tracker->setPhase(source, MigrationItemProgress::Phase::skipped);
  } else {
    appendLog(batch->runID, name, "log.migrate_item_start", {});
    outcome = performSingleAppMigration(batch, index);
  }
  const auto kind = outcome.kind;
  {
    std::lock_guard lock(batch->mutex);
    batch->outcomes[index] = outcome;
  }
  if (kind == ItemOutcome::Kind::succeeded) {
    saveRecord(batch, index, outcome);
  } else if (kind == ItemOutcome::Kind::failed) {
    appendLog(batch->runID, name, "log.migrate_item_failed", {outcome.message});
  } else if (kind == ItemOutcome::Kind::deferred) {
    appendLog(batch->runID, name, "log.migrate_item_deferred", {outcome.message});
  }
  const auto batchOutcome = kind == ItemOutcome::Kind::succeeded ? MigrationBatchProgress::Outcome::succeeded
                            : kind == ItemOutcome::Kind::failed  ? MigrationBatchProgress::Outcome::failed
                                                                 : MigrationBatchProgress::Outcome::skipped;
  {
    std::lock_guard lock(batch->mutex);
    batch->progress->finish(static_cast<std::int64_t>(index), batchOutcome);
  }
  batch->progress->publish([this, batch](MigrationBatchProgress::Snapshot snapshot) {
    post(batch->runID, [this, snapshot] {
      snapshot_ = snapshot;
      notify();
    });
  });
  batch->slots->release();
}

void MigrationManager::saveRecord(const std::shared_ptr<Batch>& batch, std::size_t index, const ItemOutcome& outcome) {
  // The record is written by the owner thread, which also owns the catalogue's list.
  post(batch->runID, [this, batch, index, outcome] {
    MigratedApp app;
    app.id = makeUuidString();
    app.appName = outcome.name;
    app.originalPath = outcome.source;
    app.targetPath = outcome.target;
    app.migratedDate = ReferenceDate::now();
    app.itemType = isApplication(outcome.source) ? MigratedItemType::application : MigratedItemType::directory;
    if (!appManager_.saveMigratedApp(app, batch->disk, batch->retiredCopies[index])) {
      appendLog(batch->runID, outcome.name, "migration.safety.catalog_failed", {});
      // The batch's outcomes are collected after every record of the batch was written.
      std::lock_guard lock(batch->mutex);
      batch->outcomes[index]->recordSaved = false;
      batch->outcomes[index]->message = localized("migration.safety.catalog_failed");
    } else if (const auto& journal = batch->journals[index]) {
      // The record is what the journal waited for; without it the entry stays for a later run.
      try {
        journal->mark(MigrationJournal::Step::recorded);
        journal->close();
      } catch (const std::exception& error) {
        logWarning(std::string("journal entry stays: ") + error.what());
      }
    }
    batch->journals[index].reset();
    appendLog(batch->runID, outcome.name, "log.migrate_item_complete", {});
  });
}

MigrationTransfer::Configuration MigrationManager::transferConfiguration(std::function<void()> onRecheck) const {
  MigrationTransfer::Configuration configuration;
  configuration.prompter = hooks_.prompter;
  configuration.services = hooks_.services;
  configuration.cancelled = hooks_.cancelled;
  configuration.beforeCommit = hooks_.beforeCommit;
  configuration.afterSwitch = hooks_.afterSwitch;
  auto platformCheck = [onRecheck = std::move(onRecheck)](const std::string& path, const MigrationManifest& manifest) {
    MigrationOpenFiles::requireIdle(path, MigrationOpenFiles::fileIndex(manifest), MigrationOpenFiles::defaultInspect(),
                                    MigrationOpenFiles::waitBetweenRechecks(2, std::chrono::seconds(1)), onRecheck,
                                    MigrationOpenFiles::defaultIdentify());
  };
  configuration.checkUsage = hooks_.checkUsage ? hooks_.checkUsage : platformCheck;
  // The data about to be removed was idle before the copy; a program may have opened it since.
  // The platform's lister always answers this one: a test's check-time hook is about the copy.
  configuration.makeAccess = [prompter = hooks_.prompter, platformCheck](const std::string& path) {
    MigrationAccess::Configuration accessConfiguration;
    accessConfiguration.requireIdle = platformCheck;
    auto access = std::make_unique<MigrationAccess>(path, std::nullopt, std::nullopt, std::move(accessConfiguration));
    if (access->usesAdministrator() && !(prompter && prompter->authorize(path))) {
      throw MigrationIssue("migration.preflight.deferred", path);
    }
    return access;
  };
  return configuration;
}

MigrationManager::ItemOutcome MigrationManager::performSingleAppMigration(const std::shared_ptr<Batch>& batch,
                                                                          std::size_t index) {
  const std::string& source = batch->apps[index];
  ItemOutcome outcome;
  outcome.source = source;
  outcome.name = lastComponent(source);
  outcome.target = destinationFor(source, batch->disk);
  std::vector<std::string> madeParents;
  std::optional<MigrationPreviousCopy> previous;
  auto journal = std::make_shared<MigrationJournal>(batch->disk, MigrationJournalDirection::migrate, outcome.name);
  try {
    MigrationDestinationCheck::require(source, batch->disk, platform::mountPoints());
    madeParents = makeParents(outcome.target);
    // The published list leaves out a record whose link was replaced by a real item; the file
    // still holds it.
    std::vector<MigratedApp> stored;
    try {
      stored = MigratedAppsFile::read(MigratedAppsFile::currentPath(batch->disk));
    } catch (const std::exception&) {
    }
    for (const auto& record : stored) {
      if (standardizePath(record.originalPath) == source)
        previous = MigrationPreviousCopy::retireIfReplaced(record, source, outcome.target, batch->disk);
    }
    if (previous) appendLog(batch->runID, outcome.name, "migration.previous_copy_retained", {previous->versionPath()});
    auto configuration = transferConfiguration([this, runID = batch->runID, name = outcome.name] {
      appendLog(runID, name, "migration.occupancy.rechecking", {});
    });
    MigrationTransfer transfer(std::move(configuration));
    const auto result =
        transfer.transfer({.source = source,
                           .destination = outcome.target,
                           .placement = MigrationTransfer::Placement::migrate,
                           .tracker = *batch->tracker,
                           .name = source,
                           .retainOriginal = hooks_.retainOriginal,
                           .preflight =
                               [&] {
                                 SimulatorMigrationPreflight::check(source, outcome.target,
                                                                    SimulatorMigrationPreflight::defaultServices());
                               },
                           .log =
                               [&](const std::string& key, const std::vector<std::string>& arguments) {
                                 appendLog(batch->runID, outcome.name, key, arguments);
                               },
                           .journal = journal.get()});
    outcome.kind = ItemOutcome::Kind::succeeded;
    batch->journals[index] = journal;
    if (previous) batch->retiredCopies[index] = previous->keep();
    outcome.retainedPath = result.retainedPath;
    if (result.retainedSource && result.retentionReason)
      appendLog(batch->runID, outcome.name, *result.retentionReason, {});
  } catch (...) {
    const auto failure = std::current_exception();
    outcome.message = migrationErrorDescription(failure);
    outcome.kind = isMigrationDeferral(failure) ? ItemOutcome::Kind::deferred : ItemOutcome::Kind::failed;
    outcome.cleanupPath = migrationCleanupPath(failure);
    // The previous copy takes its place again when the new one never arrived there.
    if (previous) previous->putBack();
    removeEmptyParents(madeParents);
    batch->tracker->setPhase(source, outcome.kind == ItemOutcome::Kind::deferred
                                         ? MigrationItemProgress::Phase::skipped
                                         : MigrationItemProgress::Phase::failed);
  }
  return outcome;
}

void MigrationManager::finishBatch(const std::shared_ptr<Batch>& batch) {
  if (batch->driver.joinable()) batch->driver.join();
  snapshot_ = batch->progress->snapshot();
  for (auto& outcome : batch->outcomes) {
    if (outcome) outcomes_.push_back(*outcome);
  }
  appManager_.loadMigratedApps(batch->disk);
  for (const auto& app : batch->apps) {
    if (kSpecialApplications.count(lastComponent(app)))
      appendLogNow(logLine(lastComponent(app), "migration.special_app_notice", {}));
  }
  const bool clean = snapshot_.failed == 0;
  appendLogNow(logLine("", clean ? "log.migration_summary" : "log.migration_summary_failed",
                       {std::to_string(snapshot_.succeeded), std::to_string(snapshot_.failed),
                        std::to_string(snapshot_.skipped), std::to_string(snapshot_.total)}));
  appendLogNow(logLine("", "log.separator_line", {}));
  batch->activity.reset();
  isMigrating_ = false;
  running_.reset();
  notify();
}

std::string MigrationManager::logLine(const std::string& item, const std::string& key,
                                      const std::vector<std::string>& arguments) {
  std::string line = formatLocalizedText(localized(key), arguments);
  if (!item.empty()) line = localizedFormat("migration.log.item", item, line);
  return line;
}

void MigrationManager::appendLogNow(const std::string& line) {
  logInfo(line);
  logText_ += line + "\n";
  logObservers_.notify(line);
  notify();
}

void MigrationManager::appendLog(const std::string& runID, const std::string& item, const std::string& key,
                                 const std::vector<std::string>& arguments) {
  post(runID, [this, line = logLine(item, key, arguments)] { appendLogNow(line); });
}

void MigrationManager::post(const std::string& runID, std::function<void()> work) {
  mainQueue_.post([lifetime = std::weak_ptr<MigrationManager*>(lifetime_), runID, work = std::move(work)] {
    auto alive = lifetime.lock();
    // Updates of an earlier run are dropped.
    if (!alive || (*alive)->progressRunID_ != runID) return;
    work();
  });
}

void MigrationManager::notify() { observers_.notify(); }

MigrationProgressTracker::Sampled MigrationManager::progressPublisher() {
  return [&queue = mainQueue_,
          lifetime = std::weak_ptr<MigrationManager*>(lifetime_)](std::vector<MigrationItemProgress> samples) {
    queue.post([lifetime, samples = std::move(samples)]() mutable {
      auto alive = lifetime.lock();
      if (alive) (*alive)->progressObservers_.notify(samples);
    });
  };
}

}  // namespace corvane
