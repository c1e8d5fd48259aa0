// The verification of a staged copy against the manifest of its source.
#include "engine/verify/migration_integrity_verifier.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <unordered_map>
#include <vector>

#include "engine/manifest/migration_link_plan.h"
#include "engine/migration_issue.h"
#include "engine/verify/migration_content_comparison.h"
#include "engine/verify/migration_copy_read_ahead.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {
namespace {

using Kind = MigrationEntry::Kind;

std::string entryPath(const std::string& root, const std::string& relativePath) {
  return relativePath.empty() ? root : joinPath(root, relativePath);
}

// The object itself is unchanged when everything but its status-change time is: repairs and
// hard links made in the copy move that time for every name of an inode.
bool sameApartFromChangeTime(const MigrationEntry& a, const MigrationEntry& b) {
  return a.kind == b.kind && a.inode == b.inode && a.device == b.device && a.size == b.size &&
         a.modifiedSeconds == b.modifiedSeconds && a.modifiedNanoseconds == b.modifiedNanoseconds && a.link == b.link &&
         a.mode == b.mode && a.flags == b.flags;
}

bool matchesEntry(const std::string& source, const std::string& destination, const MigrationEntry& expected,
                  const std::optional<std::string>& link, MigrationContentComparison& comparison,
                  const MigrationIntegrityVerifier::BytesRead& bytesRead, bool compareContents,
                  std::optional<platform::OpenedAhead> openedAhead = std::nullopt) {
  const auto present = MigrationEntry::read(destination, AT_FDCWD);
  if (!present || present->kind != expected.kind) return false;
  switch (expected.kind) {
    case Kind::symbolicLink:
      return present->link == (link ? link : expected.link);
    case Kind::regular:
      // Size first: a short copy fails before a byte is read.
      if (present->size != expected.size || present->mode != expected.mode) return false;
      return !compareContents ||
             comparison.sameContents(source, expected, destination, *present, bytesRead, std::move(openedAhead));
    default:
      return true;
  }
}

// One run of verify(): the state shared by its steps.
class Verification {
 public:
  Verification(const std::string& source, const std::string& destination, const MigrationManifest& manifest,
               const MigrationVerificationOptions& options)
      : source_(source),
        destination_(destination),
        manifest_(manifest),
        options_(options),
        treeLabel_(lastComponent(destination)) {}

  void run() {
    wholeTree([&] { MigrationIntegrityVerifier::validateLocations(source_, destination_); });
    wholeTree([&] { MigrationIntegrityVerifier::requireUnchanged(source_, manifest_); });
    wholeTree([&] {
      relocated_ = options_.relocated ? *options_.relocated : MigrationLinkPlan::relocatedTargets(source_, manifest_);
    });
    wholeTree([&] { flushDestination(); });
    readAhead_.emplace(destination_, manifest_, options_.inactiveSockets);
    for (const auto& [relativePath, expected] : manifest_) {
      if (options_.inactiveSockets.contains(relativePath)) continue;
      entry(relativePath, [&] { verifyEntry(relativePath, expected); });
    }
    if (options_.hardLinks == HardLinkPolicy::preserve) verifyHardLinkGroups();
    wholeTree([&] { MigrationIntegrityVerifier::requireUnchanged(source_, manifest_); });
    wholeTree([&] { checkFinalSnapshot(); });
  }

 private:
  struct Group {
    std::string firstRelativePath;
    MigrationFileIdentity copyIdentity;
  };

  // A failure is logged where it happened and leaves as a MigrationIssue.
  template <typename Step>
  void guarded(const std::string& label, const std::string& pathForWrapping, Step step) {
    try {
      step();
    } catch (const MigrationIssue& issue) {
      logError(fmt::format("Migration verification failed at {}: {}", label, issue.what()));
      throw;
    } catch (const std::exception& failure) {
      logError(fmt::format("Migration verification failed at {}: {}", label, failure.what()));
      throw MigrationIssue("error.migration_entry_failed", lastComponent(pathForWrapping));
    }
  }
  template <typename Step>
  void wholeTree(Step step) {
    guarded(treeLabel_, destination_, step);
  }
  template <typename Step>
  void entry(const std::string& relativePath, Step step) {
    guarded(relativePath.empty() ? treeLabel_ : relativePath, entryPath(destination_, relativePath), step);
  }

  // Everything written to the copy reaches the device before the verification reads it back.
  void flushDestination() {
    const std::string parent = parentPath(destination_);
    if (!flushDescriptor_) {
      flushDescriptor_.reset(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (!flushDescriptor_) platform::throwErrno(parent);
    }
    platform::flushFileSystem(flushDescriptor_.get(), parent);
  }

  std::optional<std::string> linkFor(const std::string& relativePath, const MigrationEntry& expected) const {
    if (expected.kind != Kind::symbolicLink) return std::nullopt;
    if (auto found = relocated_.find(relativePath); found != relocated_.end()) return found->second;
    return expected.link;
  }

  void verifyEntry(const std::string& relativePath, const MigrationEntry& expected) {
    if (options_.checking) options_.checking(relativePath);
    const std::string original = entryPath(source_, relativePath);
    const std::string copy = entryPath(destination_, relativePath);
    const auto link = linkFor(relativePath, expected);

    // Another name of a hard-link group whose data was already compared: the same inode in the
    // copy holds the same bytes, so only the entry itself is checked.
    Group* group = nullptr;
    bool compareContents = true;
    if (expected.kind == Kind::regular) {
      if (auto found = groups_.find(expected.identity()); found != groups_.end()) {
        group = &found->second;
        const auto present = MigrationEntry::read(copy, AT_FDCWD);
        compareContents =
            !(options_.hardLinks == HardLinkPolicy::preserve && present && present->identity() == group->copyIdentity);
      }
    }
    const bool countBytes = expected.kind == Kind::regular && group == nullptr;
    std::int64_t fileBytes = 0;
    auto bytesRead = [&](std::int64_t length) {
      fileBytes += length;
      // A second reading after a repair covers bytes already counted.
      if (countBytes && fileBytes > creditedForFile_) {
        bytes_ += fileBytes - creditedForFile_;
        creditedForFile_ = fileBytes;
        report(relativePath);
      }
    };
    creditedForFile_ = 0;

    std::optional<platform::OpenedAhead> openedAhead;
    if (expected.kind == Kind::regular && compareContents) openedAhead = readAhead_->take(relativePath);
    if (!matchesEntry(original, copy, expected, link, comparison_, bytesRead, compareContents,
                      std::move(openedAhead))) {
      if (!options_.repair) throw MigrationIssue("error.migration_copy_mismatch", copy);
      MigrationRepairRequest request{relativePath, original, copy, expected, link, std::nullopt};
      if (group && options_.hardLinks == HardLinkPolicy::preserve) {
        request.hardLinkTo = entryPath(destination_, group->firstRelativePath);
      }
      options_.repair(request);
      repairedPaths_.insert(relativePath);
      if (options_.repaired) options_.repaired(relativePath);
      flushDestination();
      fileBytes = 0;
      if (!matchesEntry(original, copy, expected, link, comparison_, bytesRead, true)) {
        throw MigrationIssue("error.migration_copy_mismatch", copy);
      }
    }

    const auto verified = MigrationEntry::read(copy, AT_FDCWD);
    if (!verified) throw MigrationIssue("error.migration_copy_mismatch", copy);
    verifiedCopies_.insert_or_assign(relativePath, *verified);
    if (expected.kind == Kind::regular && group == nullptr) {
      groups_.emplace(expected.identity(), Group{relativePath, verified->identity()});
    }
    ++entries_;
    report(relativePath);
  }

  void verifyHardLinkGroups() {
    std::unordered_map<MigrationFileIdentity, std::vector<std::string>> names;
    for (const auto& [relativePath, expected] : manifest_) {
      if (expected.kind == Kind::regular) names[expected.identity()].push_back(relativePath);
    }
    for (const auto& [identity, paths] : names) {
      if (paths.size() < 2) continue;
      const std::string& first = paths.front();
      const auto firstCopy = verifiedCopies_.at(first);
      for (std::size_t i = 1; i < paths.size(); ++i) {
        const std::string& relativePath = paths[i];
        entry(relativePath, [&] { requireSameGroup(relativePath, first, firstCopy.identity()); });
      }
    }
  }

  void requireSameGroup(const std::string& relativePath, const std::string& first,
                        const MigrationFileIdentity& shared) {
    const std::string copy = entryPath(destination_, relativePath);
    auto present = MigrationEntry::read(copy, AT_FDCWD);
    if (present && present->identity() == shared) return;
    // Each entry is rebuilt at most once; a name that was already repaired and still stands
    // apart from its group is a copy that cannot be trusted.
    if (!options_.repair || repairedPaths_.contains(relativePath)) {
      throw MigrationIssue("error.migration_copy_mismatch", copy);
    }
    const MigrationEntry& expected = manifest_.at(relativePath);
    options_.repair(
        {relativePath, entryPath(source_, relativePath), copy, expected, std::nullopt, entryPath(destination_, first)});
    repairedPaths_.insert(relativePath);
    if (options_.repaired) options_.repaired(relativePath);
    present = MigrationEntry::read(copy, AT_FDCWD);
    if (!present || present->identity() != shared) throw MigrationIssue("error.migration_copy_mismatch", copy);
    verifiedCopies_.insert_or_assign(relativePath, *present);
  }

  // The copy as a whole: nothing live was started inside it, nothing appeared or vanished, and
  // nothing changed after its check.
  void checkFinalSnapshot() {
    const auto snapshot = MigrationIntegrityVerifier::snapshot(destination_, RuntimeEntries::allow, ReadableCheck::skip,
                                                               RemovableCheck::skip);
    for (const auto& [relativePath, present] : snapshot) {
      if (present.kind == Kind::socket) {
        throw MigrationIssue("migration.preflight.runtime", entryPath(destination_, relativePath));
      }
    }
    for (const auto& [relativePath, present] : snapshot) {
      auto verified = verifiedCopies_.find(relativePath);
      if (verified == verifiedCopies_.end() || !sameApartFromChangeTime(verified->second, present)) {
        throw MigrationIssue("error.migration_copy_mismatch", entryPath(destination_, relativePath));
      }
    }
    for (const auto& [relativePath, verified] : verifiedCopies_) {
      if (!snapshot.contains(relativePath)) {
        throw MigrationIssue("error.migration_copy_mismatch", entryPath(destination_, relativePath));
      }
    }
  }

  void report(const std::string& relativePath) {
    if (options_.progress) options_.progress({bytes_, entries_, relativePath});
  }

  const std::string& source_;
  const std::string& destination_;
  const MigrationManifest& manifest_;
  const MigrationVerificationOptions& options_;
  const std::string treeLabel_;
  std::map<std::string, std::string> relocated_;
  platform::UniqueFd flushDescriptor_;
  std::optional<MigrationCopyReadAhead> readAhead_;
  MigrationContentComparison comparison_;
  std::unordered_map<MigrationFileIdentity, Group> groups_;
  MigrationManifest verifiedCopies_;
  std::set<std::string> repairedPaths_;
  std::int64_t bytes_ = 0;
  std::int64_t entries_ = 0;
  std::int64_t creditedForFile_ = 0;
};

}  // namespace

void MigrationIntegrityVerifier::validateLocations(const std::string& source, const std::string& destination) {
  const std::string resolvedSource = standardizePath(resolvingSymlinksInPath(source));
  const std::string resolvedDestination = standardizePath(resolvingSymlinksInPath(destination));
  if (isSameOrDescendant(resolvedSource, resolvedDestination) ||
      isSameOrDescendant(resolvedDestination, resolvedSource)) {
    throw MigrationIssue("error.migration_overlapping_paths", destination);
  }
}

void MigrationIntegrityVerifier::verify(const std::string& source, const std::string& destination,
                                        const MigrationManifest& manifest,
                                        const MigrationVerificationOptions& options) {
  Verification(source, destination, manifest, options).run();
}

bool MigrationIntegrityVerifier::matches(const std::string& source, const std::string& destination,
                                         const MigrationEntry& expected, const std::optional<std::string>& link,
                                         const BytesRead& bytesRead) {
  MigrationContentComparison comparison;
  return matchesEntry(source, destination, expected, link, comparison, bytesRead, true);
}

MigrationManifest MigrationIntegrityVerifier::snapshot(const std::string& root, RuntimeEntries runtimeEntries,
                                                       ReadableCheck readable, RemovableCheck removable,
                                                       const Visited& visited) {
  return MigrationSnapshot::walk(root, runtimeEntries, readable, removable, visited);
}

void MigrationIntegrityVerifier::requireUnchanged(const std::string& source, const MigrationManifest& manifest,
                                                  const Visited& visited) {
  MigrationManifest current;
  try {
    current = snapshot(source, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip, visited);
  } catch (const MigrationIssue& issue) {
    if (issue.key() == "error.migration_source_changed") throw MigrationIssue("error.migration_source_changed", source);
    throw;
  }
  // Equal maps compare every key and all eleven fields of every entry.
  if (current != manifest) throw MigrationIssue("error.migration_source_changed", source);
}

}  // namespace corvane
