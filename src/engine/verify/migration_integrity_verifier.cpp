// The verification of a staged copy against the manifest of its source.
#include "engine/verify/migration_integrity_verifier.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "engine/manifest/migration_entry_state.h"
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

// What a verified object of the copy was when its check passed (its link text is the text the
// check required). One per manifest entry, in manifest order, so the copy's state costs a few
// dozen bytes per entry instead of a second manifest.
struct VerifiedCopy {
  const std::string* relativePath = nullptr;  // the manifest's key
  MigrationEntryState state;                  // present once verified
  bool seenAgain = false;

  bool sameApartFromChangeTime(const MigrationEntry& present, const std::optional<std::string>& link) const {
    return state.matches(present) && link == present.link;
  }
};

bool matchesEntry(const std::string& source, const std::string& destination, const MigrationEntry& expected,
                  const std::optional<std::string>& link, MigrationContentComparison& comparison,
                  const MigrationIntegrityVerifier::BytesRead& bytesRead, bool compareContents,
                  std::optional<platform::OpenedAhead> openedAhead = std::nullopt) {
  const auto present = MigrationEntry::read(destination, AT_FDCWD);
  if (!present || present->kind != expected.kind) return false;
  switch (expected.kind) {
    case Kind::symbolicLink:
      return link ? present->link == *link : present->link == expected.link;
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
    groupNames();
    readAhead_.emplace(destination_, manifest_, options_.inactiveSockets, sharedIdentities_);
    verifiedCopies_.reserve(manifest_.size());
    for (const auto& [relativePath, expected] : manifest_) verifiedCopies_.push_back({&relativePath, {}, false});
    std::size_t index = 0;
    for (const auto& [relativePath, expected] : manifest_) {
      VerifiedCopy& slot = verifiedCopies_[index++];
      if (options_.inactiveSockets.contains(relativePath)) continue;
      entry(relativePath, [&] { verifyEntry(relativePath, expected, slot); });
    }
    if (options_.hardLinks == HardLinkPolicy::preserve) verifyHardLinkGroups();
    wholeTree([&] { MigrationIntegrityVerifier::requireUnchanged(source_, manifest_); });
    wholeTree([&] { checkFinalSnapshot(); });
  }

 private:
  struct Group {
    const std::string* firstRelativePath;  // the manifest's key
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
    return expected.link.optional();
  }
  // The text a verified link of the copy carries: only the manifest and the relocations know it.
  std::optional<std::string> linkFor(const std::string& relativePath, Kind kind) const {
    if (kind != Kind::symbolicLink) return std::nullopt;
    auto recorded = manifest_.find(relativePath);
    if (recorded == manifest_.end()) return std::nullopt;
    return linkFor(relativePath, recorded->second);
  }

  // The slot of a manifest path; the slots are in the manifest's (sorted) order.
  VerifiedCopy* verifiedCopy(const std::string& relativePath) {
    auto found =
        std::lower_bound(verifiedCopies_.begin(), verifiedCopies_.end(), relativePath,
                         [](const VerifiedCopy& slot, const std::string& path) { return *slot.relativePath < path; });
    return found != verifiedCopies_.end() && *found->relativePath == relativePath ? &*found : nullptr;
  }

  void verifyEntry(const std::string& relativePath, const MigrationEntry& expected, VerifiedCopy& slot) {
    if (options_.checking) options_.checking(relativePath);
    const std::string original = entryPath(source_, relativePath);
    const std::string copy = entryPath(destination_, relativePath);
    const auto link = linkFor(relativePath, expected);

    // Another name of a hard-link group whose data was already compared: the same inode in the
    // copy holds the same bytes, so only the entry itself is checked.
    Group* group = nullptr;
    bool compareContents = true;
    if (expected.kind == Kind::regular) {
      if (auto found =
              sharedIdentities_.contains(expected.identity()) ? groups_.find(expected.identity()) : groups_.end();
          found != groups_.end()) {
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
        request.hardLinkTo = entryPath(destination_, *group->firstRelativePath);
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
    slot.state = MigrationEntryState::of(*verified);
    if (expected.kind == Kind::regular && group == nullptr && sharedIdentities_.contains(expected.identity())) {
      groups_.emplace(expected.identity(), Group{&relativePath, verified->identity()});
    }
    ++entries_;
    report(relativePath);
  }

  // The names of each regular file's identity side by side, each group in manifest order:
  // pointers to the manifest's keys, sorted, rather than a map of path copies; and the
  // identities that have more than one name, the only ones whose copies are tracked by identity.
  void groupNames() {
    for (const auto& [relativePath, expected] : manifest_) {
      if (expected.kind == Kind::regular) names_.emplace_back(expected.identity(), &relativePath);
    }
    std::stable_sort(names_.begin(), names_.end(), [](const auto& a, const auto& b) {
      return std::tie(a.first.device, a.first.inode) < std::tie(b.first.device, b.first.inode);
    });
    for (std::size_t i = 1; i < names_.size(); ++i) {
      if (names_[i].first == names_[i - 1].first) sharedIdentities_.insert(names_[i].first);
    }
    // Only the groups' names are needed from here on; the list of every file goes back now,
    // before the per-entry state of the verification is made.
    std::erase_if(names_, [&](const auto& named) { return !sharedIdentities_.contains(named.first); });
    names_.shrink_to_fit();
  }

  void verifyHardLinkGroups() {
    const auto& names = names_;
    for (std::size_t start = 0, end = 0; start < names.size(); start = end) {
      for (end = start + 1; end < names.size() && names[end].first == names[start].first;) ++end;
      if (end - start < 2) continue;
      const std::string& first = *names[start].second;
      const VerifiedCopy* firstCopy = verifiedCopy(first);
      if (!firstCopy || !firstCopy->state.present)
        throw MigrationIssue("error.migration_copy_mismatch", entryPath(destination_, first));
      const MigrationFileIdentity shared = firstCopy->state.identity();
      for (std::size_t i = start + 1; i < end; ++i) {
        const std::string& relativePath = *names[i].second;
        entry(relativePath, [&] { requireSameGroup(relativePath, first, shared); });
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
    verifiedCopy(relativePath)->state = MigrationEntryState::of(*present);
  }

  // The copy as a whole: nothing live was started inside it, nothing appeared or vanished, and
  // nothing changed after its check. Walked once, each object compared as it is read; a socket
  // found anywhere is reported before any other difference.
  void checkFinalSnapshot() {
    std::optional<std::string> socket;
    std::optional<std::string> mismatch;
    MigrationSnapshot::walkEntries(
        destination_, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip,
        [&](const std::string& relativePath, const MigrationEntry& present) {
          VerifiedCopy* verified = verifiedCopy(relativePath);
          if (!verified && options_.destinationMayHoldMore) return;
          if (present.kind == Kind::socket) {
            if (!socket) socket = relativePath;
            return;
          }
          if (mismatch) return;
          if (!verified || !verified->sameApartFromChangeTime(present, linkFor(relativePath, present.kind))) {
            mismatch = relativePath;
            return;
          }
          verified->seenAgain = true;
        });
    if (socket) throw MigrationIssue("migration.preflight.runtime", entryPath(destination_, *socket));
    if (mismatch) throw MigrationIssue("error.migration_copy_mismatch", entryPath(destination_, *mismatch));
    for (const auto& verified : verifiedCopies_) {
      if (verified.state.present && !verified.seenAgain) {
        throw MigrationIssue("error.migration_copy_mismatch", entryPath(destination_, *verified.relativePath));
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
  std::vector<std::pair<MigrationFileIdentity, const std::string*>> names_;
  std::unordered_set<MigrationFileIdentity> sharedIdentities_;
  std::unordered_map<MigrationFileIdentity, Group> groups_;
  std::vector<VerifiedCopy> verifiedCopies_;
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
  // Compared while walking: holding a second manifest would double the memory of a large item.
  // Every name is visited once, so the same count of equal entries means the same tree.
  std::size_t equal = 0;
  try {
    MigrationSnapshot::walkEntries(
        source, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip,
        [&](const std::string& relativePath, const MigrationEntry& current) {
          auto recorded = manifest.find(relativePath);
          // All eleven fields of the entry.
          if (recorded == manifest.end() || recorded->second != current) {
            throw MigrationIssue("error.migration_source_changed", source);
          }
          ++equal;
        },
        visited);
  } catch (const MigrationIssue& issue) {
    if (issue.key() == "error.migration_source_changed") throw MigrationIssue("error.migration_source_changed", source);
    throw;
  }
  if (equal != manifest.size()) throw MigrationIssue("error.migration_source_changed", source);
}

}  // namespace corvane
