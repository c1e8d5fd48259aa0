#include "engine/transfer/migration_staging_area.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <vector>

#include "catalogue/transfer_staging_name.h"
#include "engine/migration_issue.h"
#include "engine/transfer/migration_owned_tree.h"
#include "platform/file_system.h"
#include "platform/no_follow_open.h"
#include "platform/posix_error.h"
#include "support/paths.h"
#include "support/uuid.h"

namespace corvane {

MigrationStagingArea::MigrationStagingArea(const std::string& source, const std::string& target,
                                           const std::string& parent, const MigrationManifest* manifest,
                                           const std::string& transferID)
    : source_(source) {
  if (manifest) {
    positions_ = MigrationManifestPositions(*manifest);
    payloadRecords_.resize(positions_.size());
  }
  auto sourceEntry = MigrationEntry::read(source, AT_FDCWD);
  if (!sourceEntry) throw MigrationIssue("error.migration_source_changed", source);
  sourceIdentity_ = sourceEntry->identity();
  root_ = joinPath(parent, std::string(kTransferStagingPrefix) + (transferID.empty() ? makeUuidString() : transferID));
  if (mkdir(root_.c_str(), 0700) != 0) platform::throwErrno(root_);
  auto rootEntry = MigrationEntry::read(root_, AT_FDCWD);
  if (!rootEntry) throw MigrationIssue("migration.safety.conflict", root_);
  rootIdentity_ = rootEntry->identity();
  // Entries are read below the directory made here, whatever its name comes to hold: a path
  // walk of a few components instead of the whole destination path for every file copied.
  rootDescriptor_ = platform::openDirectoryNoFollow(root_);
  auto opened = platform::statDescriptor(rootDescriptor_.get(), root_);
  if (opened.inode != rootEntry->inode || opened.device != rootEntry->device) {
    throw MigrationIssue("migration.safety.conflict", root_);
  }
  payloadKey_ = lastComponent(target);
  payload_ = joinPath(root_, payloadKey_);
  store("", *rootEntry);
}

std::optional<std::size_t> MigrationStagingArea::positionOf(std::string_view relative) const {
  if (positions_.size() == 0 || relative.substr(0, payloadKey_.size()) != payloadKey_) return std::nullopt;
  if (relative.size() == payloadKey_.size()) return positions_.find("");
  if (relative[payloadKey_.size()] != '/') return std::nullopt;
  return positions_.find(relative.substr(payloadKey_.size() + 1));
}

const MigrationStagingArea::Record* MigrationStagingArea::recorded(const std::string& relative) const {
  if (auto position = positionOf(relative)) {
    const Record& record = payloadRecords_[*position];
    return record.present ? &record : nullptr;
  }
  auto found = otherRecords_.find(relative);
  return found == otherRecords_.end() ? nullptr : &found->second;
}

void MigrationStagingArea::store(const std::string& relative, const MigrationEntry& entry) {
  if (auto position = positionOf(relative)) {
    payloadRecords_[*position] = Record::of(entry);
  } else {
    otherRecords_.insert_or_assign(relative, Record::of(entry));
  }
}

void MigrationStagingArea::forget(const std::string& relative) {
  if (auto position = positionOf(relative)) {
    payloadRecords_[*position].present = false;
  } else {
    otherRecords_.erase(relative);
  }
}

// The record at `relative` and every record below it.
void MigrationStagingArea::forgetWithin(const std::string& relative) {
  auto within = [&](const std::string& path) { return path == relative || path.rfind(relative + "/", 0) == 0; };
  for (std::size_t position = 0; position < payloadRecords_.size(); ++position) {
    if (!payloadRecords_[position].present) continue;
    const std::string& key = positions_.path(position);
    if (within(key.empty() ? payloadKey_ : payloadKey_ + "/" + key)) payloadRecords_[position].present = false;
  }
  std::erase_if(otherRecords_, [&](const auto& record) { return within(record.first); });
}

std::optional<MigrationFileIdentity> MigrationStagingArea::recordedIdentity(const std::string& path) const {
  const std::string relative = relativeToRoot(path);
  if (relative == "/") return std::nullopt;
  const Record* record = recorded(relative);
  if (!record) return std::nullopt;
  return record->identity();
}

std::string MigrationStagingArea::relativeToRoot(const std::string& path) const {
  if (path == root_) return "";
  if (path.size() > root_.size() && path.compare(0, root_.size(), root_) == 0 && path[root_.size()] == '/') {
    return path.substr(root_.size() + 1);
  }
  return "/";  // not below the root
}

void MigrationStagingArea::recordCreated(const std::string& path, RecordScope scope) {
  const std::string relative = relativeToRoot(path);
  if (relative == "/") return;
  if (scope == RecordScope::anyPath) recordMissingAncestors(relative);
  record(relative, scope);
}

// Ancestors first, so a removal always finds a recorded directory above each entry. Every path
// is recorded together with its ancestors, so the nearest recorded one ends the search.
void MigrationStagingArea::recordMissingAncestors(const std::string& relative) {
  std::vector<std::size_t> missingEnds;  // nearest first
  for (auto slash = relative.rfind('/'); slash != std::string::npos && slash > 0;
       slash = relative.rfind('/', slash - 1)) {
    if (recorded(relative.substr(0, slash))) break;
    missingEnds.push_back(slash);
  }
  for (auto end = missingEnds.rbegin(); end != missingEnds.rend(); ++end) {
    record(relative.substr(0, *end), RecordScope::anyPath);
  }
}

void MigrationStagingArea::refreshDirectories() {
  std::vector<std::string> directories;
  for (std::size_t position = 0; position < payloadRecords_.size(); ++position) {
    const Record& known = payloadRecords_[position];
    if (!known.present || known.kind != MigrationEntry::Kind::directory) continue;
    const std::string& key = positions_.path(position);
    directories.push_back(key.empty() ? payloadKey_ : payloadKey_ + "/" + key);
  }
  for (const auto& [relative, known] : otherRecords_) {
    if (known.kind == MigrationEntry::Kind::directory) directories.push_back(relative);
  }
  for (const auto& relative : directories) record(relative, RecordScope::onlyKnown);
}

void MigrationStagingArea::recordRepaired(const std::string& path) {
  requireRoot();
  const std::string relative = relativeToRoot(path);
  const std::string payload = relativeToRoot(payload_);
  if (relative != payload && relative.rfind(payload + "/", 0) != 0) {
    throw MigrationIssue("migration.safety.conflict", path);
  }
  // The rebuild changed the folder's times, not the folder: it must still be ours.
  const auto slash = relative.rfind('/');
  record(slash == std::string::npos ? std::string() : relative.substr(0, slash), RecordScope::onlyKnown);
  auto entry = MigrationEntry::read(relative, rootDescriptor_.get());
  if (entry && entry->kind == MigrationEntry::Kind::directory) {
    const Record* known = recorded(relative);
    if (known && known->identity() == entry->identity()) {
      record(relative, RecordScope::onlyKnown);
      return;
    }
  }
  forgetWithin(relative);
  if (entry) store(relative, *entry);
}

void MigrationStagingArea::record(const std::string& relative, RecordScope scope) {
  const Record* known = recorded(relative);
  if (scope == RecordScope::onlyKnown && !known) return;
  auto entry =
      relative.empty() ? MigrationEntry::read(root_, AT_FDCWD) : MigrationEntry::read(relative, rootDescriptor_.get());
  if (!entry) {
    if (known) forget(relative);
    return;
  }
  if (known && (known->identity() != entry->identity() || known->kind != entry->kind)) {
    throw MigrationIssue("migration.safety.conflict", relative.empty() ? root_ : root_ + "/" + relative);
  }
  store(relative, *entry);
}

void MigrationStagingArea::requireRoot() const {
  auto entry = MigrationEntry::read(root_, AT_FDCWD);
  if (!entry || entry->identity() != rootIdentity_ || entry->kind != MigrationEntry::Kind::directory) {
    throw MigrationIssue("migration.safety.conflict", root_);
  }
}

void MigrationStagingArea::finish() {
  requireRoot();
  MigrationOwnedTree::remove(
      root_, *recorded(""), [this](const std::string& relative) { return recorded(relative); },
      RemovalScope::wholeTree);
}

void MigrationStagingArea::discardAfterRollback() {
  auto entry = MigrationEntry::read(root_, AT_FDCWD);
  if (!entry) return;
  finish();
}

void MigrationStagingArea::receivedLinkAfterRestore(const MigrationEntry& link) {
  requireRoot();
  auto entry = MigrationEntry::read(payload_, AT_FDCWD);
  if (!entry || entry->kind != MigrationEntry::Kind::symbolicLink || entry->identity() != link.identity() ||
      entry->link != link.link) {
    throw MigrationIssue("migration.safety.conflict", payload_);
  }
  // Whatever was recorded under the payload before is gone; only the link is there now.
  forgetWithin(payloadKey_);
  store(payloadKey_, *entry);
}

}  // namespace corvane
