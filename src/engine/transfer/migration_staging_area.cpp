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
                                           const std::string& parent)
    : source_(source) {
  auto sourceEntry = MigrationEntry::read(source, AT_FDCWD);
  if (!sourceEntry) throw MigrationIssue("error.migration_source_changed", source);
  sourceIdentity_ = sourceEntry->identity();
  root_ = joinPath(parent, std::string(kTransferStagingPrefix) + makeUuidString());
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
  owned_.emplace("", *rootEntry);
  payload_ = joinPath(root_, lastComponent(target));
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
    if (owned_.find(std::string_view(relative).substr(0, slash)) != owned_.end()) break;
    missingEnds.push_back(slash);
  }
  for (auto end = missingEnds.rbegin(); end != missingEnds.rend(); ++end) {
    record(relative.substr(0, *end), RecordScope::anyPath);
  }
}

void MigrationStagingArea::refreshDirectories() {
  std::vector<std::string> directories;
  for (const auto& [relative, entry] : owned_) {
    if (entry.kind == MigrationEntry::Kind::directory) directories.push_back(relative);
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
    auto known = owned_.find(relative);
    if (known != owned_.end() && known->second.identity() == entry->identity()) {
      record(relative, RecordScope::onlyKnown);
      return;
    }
  }
  for (auto it = owned_.begin(); it != owned_.end();) {
    if (it->first == relative || it->first.rfind(relative + "/", 0) == 0) {
      it = owned_.erase(it);
    } else {
      ++it;
    }
  }
  if (entry) owned_.insert_or_assign(relative, *entry);
}

void MigrationStagingArea::record(const std::string& relative, RecordScope scope) {
  auto known = owned_.find(relative);
  if (scope == RecordScope::onlyKnown && known == owned_.end()) return;
  auto entry =
      relative.empty() ? MigrationEntry::read(root_, AT_FDCWD) : MigrationEntry::read(relative, rootDescriptor_.get());
  if (!entry) {
    if (known != owned_.end()) owned_.erase(known);
    return;
  }
  if (known != owned_.end() && (known->second.identity() != entry->identity() || known->second.kind != entry->kind)) {
    throw MigrationIssue("migration.safety.conflict", relative.empty() ? root_ : root_ + "/" + relative);
  }
  owned_.insert_or_assign(relative, *entry);
}

void MigrationStagingArea::requireRoot() const {
  auto entry = MigrationEntry::read(root_, AT_FDCWD);
  if (!entry || entry->identity() != rootIdentity_ || entry->kind != MigrationEntry::Kind::directory) {
    throw MigrationIssue("migration.safety.conflict", root_);
  }
}

void MigrationStagingArea::finish() {
  requireRoot();
  MigrationOwnedTree::remove(root_, owned_.at(""), owned_, RemovalScope::wholeTree, ChangeTime::ignore);
}

void MigrationStagingArea::discardAfterRollback() {
  auto entry = MigrationEntry::read(root_, AT_FDCWD);
  if (!entry) return;
  requireRoot();
  MigrationOwnedTree::remove(root_, owned_.at(""), owned_, RemovalScope::wholeTree, ChangeTime::ignore);
}

void MigrationStagingArea::receivedLinkAfterRestore(const MigrationEntry& link) {
  requireRoot();
  auto entry = MigrationEntry::read(payload_, AT_FDCWD);
  if (!entry || entry->kind != MigrationEntry::Kind::symbolicLink || entry->identity() != link.identity() ||
      entry->link != link.link) {
    throw MigrationIssue("migration.safety.conflict", payload_);
  }
  // Whatever was recorded under the payload before is gone; only the link is there now.
  const std::string prefix = relativeToRoot(payload_);
  for (auto it = owned_.begin(); it != owned_.end();) {
    if (it->first == prefix || it->first.rfind(prefix + "/", 0) == 0) {
      it = owned_.erase(it);
    } else {
      ++it;
    }
  }
  owned_.insert_or_assign(prefix, *entry);
}

}  // namespace corvane
