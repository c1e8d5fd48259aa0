// Moves one item to another disk so that it can always be undone: scan, check, copy into a
// private staging directory beside the destination, verify against the scan, promote, and only
// then switch the source for a link. The same machinery runs the other way to bring an item
// back. Until the switch succeeds nothing at the source is touched; after any failure the
// staging area and the destination are removed again.
#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/journal/migration_journal.h"
#include "engine/manifest/migration_entry.h"
#include "engine/preflight/migration_preflight.h"
#include "engine/progress/migration_progress_tracker.h"
#include "engine/switch/migration_access.h"

namespace corvane {

enum class RetainOriginal { no, yes };

class MigrationTransfer {
 public:
  // migrate: the source becomes a link to the copy at the destination.
  // restore: the destination is the link this program left; the copy takes its place.
  enum class Placement { migrate, restore };

  struct Configuration {
    // Throws (MigrationOpenFiles::Blocked) when a file of the tree is held open.
    std::function<void(const std::string& source, const MigrationManifest& manifest)> checkUsage;
    // Makes the object that changes the item's old location (the source when migrating, the
    // link when restoring).
    std::function<std::unique_ptr<MigrationAccess>(const std::string& path)> makeAccess;
    // Runs last before the exchange; may throw.
    std::function<void()> beforeCommit;
    // Runs between the copy and its verification with the staged copy's path (tests damage it).
    std::function<void(const std::string& stagedCopy)> afterCopy;
    // Runs after the exchange, before the replaced data is removed (tests replace things here).
    std::function<void()> afterSwitch;
    MigrationPreflightPrompter* prompter = nullptr;
    MigrationPreflight::Services services;
    // Set from any thread to stop during the copy or the verification; the transfer rolls back.
    const std::atomic<bool>* cancelled = nullptr;
  };

  struct Result {
    bool retainedSource = false;
    std::optional<std::string> retentionReason;
    std::optional<std::string> retainedPath;  // where the kept original lies
  };

  // A failed transfer: the first error, and a path that could not be cleaned up when there is one.
  class Failure : public std::exception {
   public:
    Failure(std::exception_ptr cause, std::optional<std::string> cleanupPath, std::string description)
        : cause_(std::move(cause)), cleanupPath_(std::move(cleanupPath)), description_(std::move(description)) {}
    const std::exception_ptr& cause() const noexcept { return cause_; }
    const std::optional<std::string>& cleanupPath() const noexcept { return cleanupPath_; }
    const char* what() const noexcept override { return description_.c_str(); }
    [[noreturn]] void rethrowCause() const { std::rethrow_exception(cause_); }

   private:
    std::exception_ptr cause_;
    std::optional<std::string> cleanupPath_;
    std::string description_;
  };

  using Log = std::function<void(const std::string& key, const std::vector<std::string>& arguments)>;

  // One item's transfer: what goes where, who hears about it and what is kept.
  struct Request {
    std::string source = {};
    std::string destination = {};
    Placement placement = Placement::migrate;
    // Receives the phases and counters of the item named `name`.
    MigrationProgressTracker& tracker;
    std::string name = {};
    RetainOriginal retainOriginal = RetainOriginal::no;
    // Runs first, before anything is read; may throw to refuse the item.
    std::function<void()> preflight = {};
    Log log = {};
    // Written before the first change and at every step boundary; the caller closes it once the
    // record is written. Closed here when a roll-back left nothing behind.
    MigrationJournal* journal = nullptr;
  };

  explicit MigrationTransfer(Configuration configuration);

  // Throws Failure.
  Result transfer(const Request& request);

 private:
  Configuration configuration_;
};

}  // namespace corvane
