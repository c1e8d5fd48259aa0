#include "engine/switch/migration_verified_removal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "engine/manifest/migration_snapshot.h"
#include "engine/migration_issue.h"
#include "platform/directory_names.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {
namespace {

using Kind = MigrationEntry::Kind;

}  // namespace

// Removing one name of a hard-link group, and renaming the root, move the status-change time of
// what stays; everything else must be as recorded.
bool MigrationVerifiedRemoval::sameApartFromChangeTime(const MigrationEntry& a, const MigrationEntry& b) {
  return a.kind == b.kind && a.inode == b.inode && a.device == b.device && a.size == b.size &&
         a.modifiedSeconds == b.modifiedSeconds && a.modifiedNanoseconds == b.modifiedNanoseconds && a.link == b.link &&
         a.mode == b.mode && a.flags == b.flags;
}

const MigrationEntry* MigrationVerifiedRemoval::PresentTree::find(const std::string& relativePath) const {
  if (auto kept = differing_.find(relativePath); kept != differing_.end()) return &kept->second;
  // A left-out socket the check did not find is no longer part of the tree.
  if (inactiveSockets_.contains(relativePath)) return nullptr;
  auto recorded = manifest_.find(relativePath);
  return recorded == manifest_.end() ? nullptr : &recorded->second;
}

namespace {

// Only names the entry that vanished; the decision was already taken by counting.
bool stillThere(const std::string& path) {
  try {
    return MigrationEntry::read(path, AT_FDCWD).has_value();
  } catch (const std::exception&) {
    return false;
  }
}

// Ends the walk at the first difference, which is then thrown as it was found.
struct Difference {
  MigrationIssue issue;
};

}  // namespace

MigrationVerifiedRemoval::PresentTree MigrationVerifiedRemoval::readExpectedTree(
    const std::string& directory, const Expectations& expected,
    const std::function<void(const std::string&)>& checking) {
  auto pathOf = [&](const std::string& relativePath) {
    return relativePath.empty() ? directory : joinPath(directory, relativePath);
  };
  const MigrationManifest& manifest = expected.manifest;
  auto root = manifest.find("");
  if (root == manifest.end()) throw MigrationIssue("migration.safety.conflict", directory);
  PresentTree present(manifest, expected.inactiveSockets);
  std::size_t found = 0;
  auto compare = [&](const std::string& relativePath, const MigrationEntry& entry) {
    if (relativePath.empty() && entry.identity() != root->second.identity()) {
      throw Difference{MigrationIssue("error.migration_source_changed", directory)};
    }
    if (expected.inactiveSockets.contains(relativePath)) {
      if (entry.kind != Kind::socket)
        throw Difference{MigrationIssue("migration.safety.conflict", pathOf(relativePath))};
      present.differing_.emplace(relativePath, entry);
      return;
    }
    auto recorded = manifest.find(relativePath);
    // Something that was not there when the item was scanned: not ours to remove.
    if (recorded == manifest.end() || recorded->second.kind != entry.kind) {
      throw Difference{MigrationIssue("migration.safety.conflict", pathOf(relativePath))};
    }
    ++found;
    if (expected.relocatedLinks.contains(relativePath)) {
      present.differing_.emplace(relativePath, entry);
      return;
    }
    if (!sameApartFromChangeTime(entry, recorded->second)) {
      throw Difference{MigrationIssue("error.migration_source_changed", pathOf(relativePath))};
    }
  };
  try {
    MigrationSnapshot::walkEntries(directory, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip, compare,
                                   checking);
  } catch (const Difference& difference) {
    throw difference.issue;
  } catch (const MigrationIssue& issue) {
    if (issue.key() == "error.migration_source_changed")
      throw MigrationIssue("error.migration_source_changed", directory);
    throw;
  }
  // Each name is read once: fewer recorded entries found means some vanished.
  std::size_t recordedCount = manifest.size();
  for (const auto& socket : expected.inactiveSockets) recordedCount -= manifest.contains(socket) ? 1 : 0;
  if (found != recordedCount) {
    for (const auto& [relativePath, entry] : manifest) {
      if (expected.inactiveSockets.contains(relativePath)) continue;  // a server may have removed it
      if (!stillThere(pathOf(relativePath))) {
        throw MigrationIssue("error.migration_source_changed", pathOf(relativePath));
      }
    }
    throw MigrationIssue("error.migration_source_changed", directory);
  }
  return present;
}

namespace {

class VerifiedRemoval {
 public:
  VerifiedRemoval(const MigrationVerifiedRemoval::PresentTree& present, bool directoriesLater)
      : present_(present), directoriesLater_(directoriesLater) {}

  // Removes the children of the directory open as `directory`, each re-read and compared first.
  // With `directoriesLater` the emptied directories are only collected, children first, and the
  // work stays on this thread; otherwise the item's branches are removed side by side (unlinking
  // is mostly the file system's own work, and it proceeds in parallel on separate directories).
  void removeChildren(int directory, const std::string& path, const std::string& relativePath) {
    if (directoriesLater_) {
      removeEach(directory, path, relativePath);
    } else {
      removeSideBySide(directory, path, relativePath);
    }
  }

  const std::vector<std::string>& emptiedDirectories() const { return emptiedDirectories_; }

 private:
  // Another branch failed: this one stops too, leaving the rest in place.
  struct Stopped {};

  enum class Spread { sideBySide, oneThread };

  void removeSideBySide(int directory, const std::string& path, const std::string& relativePath) {
    const std::vector<std::string> names = platform::directoryNames(directory, path);
    const std::size_t threads =
        std::min<std::size_t>(names.size(), std::clamp(std::thread::hardware_concurrency(), 1u, 4u));
    // A single child (a bundle's one top folder) is entered first, so its branches spread instead.
    if (threads < 2) {
      for (const auto& name : names) removeChild(directory, path, relativePath, name, Spread::sideBySide);
      return;
    }
    std::atomic<std::size_t> next{0};
    std::mutex failureMutex;
    std::exception_ptr failure;
    auto work = [&] {
      try {
        for (std::size_t index = next++; index < names.size(); index = next++) {
          removeChild(directory, path, relativePath, names[index], Spread::oneThread);
        }
      } catch (const Stopped&) {
      } catch (...) {
        std::lock_guard lock(failureMutex);
        if (!failure) failure = std::current_exception();
        stopped_ = true;
      }
    };
    std::vector<std::thread> helpers;
    for (std::size_t i = 1; i < threads; ++i) {
      try {
        helpers.emplace_back(work);
      } catch (const std::system_error&) {
        break;  // no thread to spare: fewer hands take the same branches
      }
    }
    work();
    for (auto& helper : helpers) helper.join();
    if (failure) std::rethrow_exception(failure);
  }

  void removeEach(int directory, const std::string& path, const std::string& relativePath) {
    for (const auto& name : platform::directoryNames(directory, path)) {
      removeChild(directory, path, relativePath, name, Spread::oneThread);
    }
  }

  void removeChild(int directory, const std::string& path, const std::string& relativePath, const std::string& name,
                   Spread spread) {
    if (stopped_) throw Stopped{};
    const std::string childRelative = relativePath.empty() ? name : relativePath + "/" + name;
    const std::string childPath = joinPath(path, name);
    const MigrationEntry* expected = present_.find(childRelative);
    auto now = MigrationEntry::read(name, directory);
    if (!expected || !now || !MigrationVerifiedRemoval::sameApartFromChangeTime(*now, *expected)) {
      throw MigrationIssue("migration.safety.conflict", childPath);
    }
    if (now->kind == Kind::directory) {
      platform::UniqueFd child(::openat(directory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (!child) platform::throwErrno(childPath);
      auto opened = platform::statDescriptor(child.get(), childPath);
      if (opened.inode != now->inode || opened.device != now->device) {
        throw MigrationIssue("migration.safety.conflict", childPath);
      }
      if (spread == Spread::sideBySide) {
        removeSideBySide(child.get(), childPath, childRelative);
      } else {
        removeEach(child.get(), childPath, childRelative);
      }
      child.reset();
      if (directoriesLater_) {
        emptiedDirectories_.push_back(childPath);
      } else if (::unlinkat(directory, name.c_str(), AT_REMOVEDIR) != 0) {
        platform::throwErrno(childPath);
      }
    } else if (::unlinkat(directory, name.c_str(), 0) != 0) {
      platform::throwErrno(childPath);
    }
  }

  const MigrationVerifiedRemoval::PresentTree& present_;
  bool directoriesLater_;
  std::atomic<bool> stopped_{false};
  std::vector<std::string> emptiedDirectories_;
};

}  // namespace

std::vector<std::string> MigrationVerifiedRemoval::removeChildren(int directory, const std::string& path,
                                                                  const PresentTree& present,
                                                                  DirectoriesLater directoriesLater) {
  VerifiedRemoval removal(present, directoriesLater == DirectoriesLater::yes);
  removal.removeChildren(directory, path, "");
  return removal.emptiedDirectories();
}

}  // namespace corvane
