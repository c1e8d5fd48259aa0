// The clean-ups of MigrationAccess: the data that a verified switch replaced is removed only
// when every entry is still the object the manifest recorded, and each entry is checked again
// right before it goes.
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

#include "engine/migration_issue.h"
#include "engine/switch/migration_access.h"
#include "engine/verify/migration_integrity_verifier.h"
#include "platform/directory_names.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {
namespace {

using Kind = MigrationEntry::Kind;

// Removing one name of a hard-link group, and renaming the root, move the status-change time of
// what stays; everything else must be as recorded.
bool sameApartFromChangeTime(const MigrationEntry& a, const MigrationEntry& b) {
  return a.kind == b.kind && a.inode == b.inode && a.device == b.device && a.size == b.size &&
         a.modifiedSeconds == b.modifiedSeconds && a.modifiedNanoseconds == b.modifiedNanoseconds && a.link == b.link &&
         a.mode == b.mode && a.flags == b.flags;
}

struct Expectations {
  const MigrationManifest& manifest;
  const std::set<std::string>& inactiveSockets;
  const std::map<std::string, std::string>& relocatedLinks;
};

// Compares the tree as it is now with what it must be; throws on the first difference.
void requireExpectedTree(const std::string& directory, const MigrationManifest& present, const Expectations& expected) {
  auto pathOf = [&](const std::string& relativePath) {
    return relativePath.empty() ? directory : joinPath(directory, relativePath);
  };
  for (const auto& [relativePath, entry] : present) {
    if (expected.inactiveSockets.contains(relativePath)) {
      if (entry.kind != Kind::socket) throw MigrationIssue("migration.safety.conflict", pathOf(relativePath));
      continue;
    }
    auto recorded = expected.manifest.find(relativePath);
    // Something that was not there when the item was scanned: not ours to remove.
    if (recorded == expected.manifest.end() || recorded->second.kind != entry.kind) {
      throw MigrationIssue("migration.safety.conflict", pathOf(relativePath));
    }
    if (expected.relocatedLinks.contains(relativePath)) continue;
    if (!sameApartFromChangeTime(entry, recorded->second)) {
      throw MigrationIssue("error.migration_source_changed", pathOf(relativePath));
    }
  }
  for (const auto& [relativePath, entry] : expected.manifest) {
    if (expected.inactiveSockets.contains(relativePath)) continue;  // a server may have removed it
    if (!present.contains(relativePath)) throw MigrationIssue("error.migration_source_changed", pathOf(relativePath));
  }
}

class VerifiedRemoval {
 public:
  VerifiedRemoval(const MigrationManifest& present, bool directoriesLater)
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
    auto expected = present_.find(childRelative);
    auto now = MigrationEntry::read(name, directory);
    if (expected == present_.end() || !now || !sameApartFromChangeTime(*now, expected->second)) {
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

  const MigrationManifest& present_;
  bool directoriesLater_;
  std::atomic<bool> stopped_{false};
  std::vector<std::string> emptiedDirectories_;
};

}  // namespace

void MigrationAccess::cleanupVerifiedData(const std::string& directory, const MigrationManifest& manifest,
                                          const std::set<std::string>& inactiveSockets,
                                          const std::map<std::string, std::string>& relocatedLinks,
                                          const Checking& checking, const std::string& destination,
                                          const MigrationEntry& identity) {
  validateParent();
  // The data is removed only while its verified replacement still stands.
  auto replacement = MigrationEntry::read(destination, AT_FDCWD);
  if (!replacement || replacement->identity() != identity.identity()) {
    throw MigrationIssue("migration.safety.conflict", destination);
  }
  auto root = manifest.find("");
  if (root == manifest.end()) throw MigrationIssue("migration.safety.conflict", directory);

  MigrationManifest present;
  try {
    present = MigrationIntegrityVerifier::snapshot(directory, RuntimeEntries::allow, ReadableCheck::skip,
                                                   RemovableCheck::skip, checking);
  } catch (const MigrationIssue& issue) {
    if (issue.key() == "error.migration_source_changed")
      throw MigrationIssue("error.migration_source_changed", directory);
    throw;
  }
  if (present.at("").identity() != root->second.identity()) {
    throw MigrationIssue("error.migration_source_changed", directory);
  }
  requireExpectedTree(directory, present, {manifest, inactiveSockets, relocatedLinks});
  if (requireIdle_) requireIdle_(directory, manifest);

  const MigrationEntry& rootEntry = present.at("");
  if (rootEntry.kind != Kind::directory) {
    auto now = MigrationEntry::read(directory, AT_FDCWD);
    if (!now || !sameApartFromChangeTime(*now, rootEntry)) throw MigrationIssue("migration.safety.conflict", directory);
    if (usesAdministrator_) {
      foundationOperation(kRemoveItemSelector, directory, std::nullopt);
    } else if (::unlink(directory.c_str()) != 0) {
      platform::throwErrno(directory);
    }
    return;
  }

  platform::UniqueFd rootFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!rootFd) platform::throwErrno(directory);
  auto opened = platform::statDescriptor(rootFd.get(), directory);
  if (opened.inode != rootEntry.inode || opened.device != rootEntry.device) {
    throw MigrationIssue("migration.safety.conflict", directory);
  }
  VerifiedRemoval removal(present, usesAdministrator_);
  removal.removeChildren(rootFd.get(), directory, "");
  rootFd.reset();
  if (usesAdministrator_) {
    // rmdir removes nothing but empty directories, so a name swapped since the check costs no data.
    std::vector<std::string> directories = removal.emptiedDirectories();
    directories.push_back(directory);
    for (const auto& command : MigrationPrivilegedCommands::removeDirectoriesCommands(directories))
      administrate(command);
  } else {
    auto now = MigrationEntry::read(directory, AT_FDCWD);
    if (!now || now->identity() != rootEntry.identity()) throw MigrationIssue("migration.safety.conflict", directory);
    if (::rmdir(directory.c_str()) != 0) platform::throwErrno(directory);
  }
}

}  // namespace corvane
