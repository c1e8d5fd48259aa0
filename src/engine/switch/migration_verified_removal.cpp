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

void MigrationVerifiedRemoval::requireExpectedTree(const std::string& directory, const MigrationManifest& present,
                                                   const Expectations& expected) {
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

namespace {

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
    if (expected == present_.end() || !now ||
        !MigrationVerifiedRemoval::sameApartFromChangeTime(*now, expected->second)) {
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

std::vector<std::string> MigrationVerifiedRemoval::removeChildren(int directory, const std::string& path,
                                                                  const MigrationManifest& present,
                                                                  DirectoriesLater directoriesLater) {
  VerifiedRemoval removal(present, directoriesLater == DirectoriesLater::yes);
  removal.removeChildren(directory, path, "");
  return removal.emptiedDirectories();
}

}  // namespace corvane
