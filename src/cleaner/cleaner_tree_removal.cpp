#include "cleaner/cleaner_tree_removal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "cleaner/directory_chain.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "settings/system_error_text.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {
namespace {

constexpr const char* kChangedKey = "cleaner.error.changed";
constexpr const char* kMountPointKey = "cleaner.error.mount_point";
constexpr const char* kUnsafeTargetKey = "cleaner.error.unsafe_link_target";

bool sameObject(const platform::FileStatus& left, const platform::FileStatus& right) {
  return left.inode == right.inode && left.device == right.device;
}

// A link whose target is the root, the home folder or any other folder on the way to the link
// itself would have the cleaner empty far more than a cache: refuse it.
bool enclosesLink(const platform::FileStatus& target, const std::string& linkPath) {
  std::string ancestor = standardizePath(linkPath);
  do {
    ancestor = parentPath(ancestor);
    const auto status = platform::statNoFollow(AT_FDCWD, ancestor);
    if (status && sameObject(*status, target)) return true;
    if (status && S_ISLNK(status->mode)) {
      struct stat followed {};
      if (::stat(ancestor.c_str(), &followed) == 0 && followed.st_ino == target.inode &&
          static_cast<std::int32_t>(followed.st_dev) == target.device) {
        return true;
      }
    }
  } while (ancestor != "/" && ancestor != ".");
  return false;
}

class RemovalWalk {
 public:
  RemovalWalk(const std::stop_token& stop, RemovalReport& report) : stop_(stop), report_(report) {}

  void cleanRoot(const std::string& path, PathCleaning cleaning, const std::vector<std::string>& excludedNames) {
    std::optional<platform::FileStatus> entry;
    try {
      entry = platform::statNoFollow(AT_FDCWD, path);
    } catch (const platform::PosixError& error) {
      problem(path, error.errnoValue());
      return;
    }
    if (!entry) return;
    try {
      if (S_ISLNK(entry->mode)) {
        // The folder lives elsewhere (moved to another disk): clean what it points at and
        // keep the link, whatever the definition would do to a real folder.
        auto target = openDirectory(path, FollowFinalLink::follow);
        if (enclosesLink(platform::statDescriptor(target.get(), path), path)) {
          problem(path, 0, kUnsafeTargetKey);
          return;
        }
        emptyDirectory(std::move(target), path, excludedNames);
      } else if (S_ISDIR(entry->mode)) {
        if (cleaning == PathCleaning::emptyInPlace || !excludedNames.empty()) {
          auto directory = openDirectory(path, FollowFinalLink::refuse);
          if (!sameObject(platform::statDescriptor(directory.get(), path), *entry)) throw DirectoryChain::Changed(path);
          emptyDirectory(std::move(directory), path, excludedNames);
        } else {
          removeDirectory(path, *entry, cleaning);
        }
      }
      // Anything else at a root is not what the definition describes: leave it.
    } catch (const DirectoryChain::Changed& changed) {
      problem(changed.path, 0, kChangedKey);
    } catch (const platform::PosixError& error) {
      // Not a directory any more, or gone: nothing of ours to clean there.
      if (error.errnoValue() == ENOENT || error.errnoValue() == ENOTDIR) return;
      problem(error.path().empty() ? path : error.path(), error.errnoValue());
    }
  }

 private:
  struct Frame {
    std::vector<std::string> names;
    std::size_t next = 0;
    std::string nameInParent;  // empty for the root
    platform::FileStatus status;
    bool incomplete = false;  // something inside stayed, so the directory cannot go
  };

  void removeDirectory(const std::string& path, const platform::FileStatus& entry, PathCleaning cleaning) {
    const std::string parentName = parentPath(path);
    const std::string name = lastComponent(path);
    auto parent = openDirectory(parentName, FollowFinalLink::follow);
    platform::UniqueFd directory(::openat(parent.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory) {
      if (errno == ELOOP) throw DirectoryChain::Changed(path);
      platform::throwErrno(path);
    }
    if (!sameObject(platform::statDescriptor(directory.get(), path), entry)) throw DirectoryChain::Changed(path);
    if (!emptyDirectory(std::move(directory), path, {})) return;

    const auto now = platform::statNoFollow(parent.get(), name);
    if (!now || !sameObject(*now, entry)) throw DirectoryChain::Changed(path);
    if (::unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR) != 0) platform::throwErrno(path);
    ++report_.removedEntries;
    if (cleaning != PathCleaning::removeAndRecreate) return;
    if (::mkdirat(parent.get(), name.c_str(), entry.mode & 07777) != 0) platform::throwErrno(path);
    if (entry.uid != ::geteuid() || entry.gid != ::getegid()) {
      // Cleaning someone else's folder (as root) must not leave it owned by root.
      if (::fchownat(parent.get(), name.c_str(), entry.uid, entry.gid, AT_SYMLINK_NOFOLLOW) != 0) {
        logWarning("🧹 cleaner: could not give " + path + " back to its owner: " + std::strerror(errno));
      }
    }
  }

  // Removes everything inside `root` except `excludedNames` at its top. True when all went.
  bool emptyDirectory(platform::UniqueFd root, const std::string& rootPath,
                      const std::vector<std::string>& excludedNames) {
    DirectoryChain chain(std::move(root), rootPath);
    std::vector<Frame> frames;
    Frame top;
    try {
      top.names = chain.listCurrent();
    } catch (const platform::PosixError& error) {
      problem(rootPath, error.errnoValue());
      return false;
    }
    std::erase_if(top.names, [&](const std::string& name) {
      return std::find(excludedNames.begin(), excludedNames.end(), name) != excludedNames.end();
    });
    frames.push_back(std::move(top));

    while (!frames.empty()) {
      Frame& frame = frames.back();
      if (frame.next == frame.names.size()) {
        Frame finished = std::move(frame);
        frames.pop_back();
        if (frames.empty()) return !finished.incomplete;
        chain.ascend();
        if (finished.incomplete || !removeEmptied(chain, finished)) frames.back().incomplete = true;
        continue;
      }
      const std::string name = frame.names[frame.next++];
      if (++visited_ % CleanerTreeRemoval::kCancellationStride == 0 && stop_.stop_requested()) {
        report_.cancelled = true;
        return false;
      }
      std::optional<Frame> child;
      if (!removeEntry(chain, name, child)) {
        frames.back().incomplete = true;
      } else if (child) {
        frames.push_back(std::move(*child));
      }
    }
    return true;
  }

  // Removes a non-directory at once; a directory is entered and handed back as the next frame.
  bool removeEntry(DirectoryChain& chain, const std::string& name, std::optional<Frame>& child) {
    const std::string path = joinPath(chain.currentPath(), name);
    try {
      const int directory = chain.current();
      auto status = platform::statNoFollow(directory, name);
      if (!status) return true;
      if (!S_ISDIR(status->mode)) {
        // Unlinking a name never reaches through it: a link goes, its target stays; a hard
        // link goes, the other names keep the data.
        if (::unlinkat(directory, name.c_str(), 0) != 0) {
          if (errno == ENOENT) return true;
          return problem(path, errno);
        }
        ++report_.removedEntries;
        return true;
      }
      if (status->device != chain.rootDevice()) return problem(path, 0, kMountPointKey);
      chain.descend(name, *status);
      Frame frame;
      frame.nameInParent = name;
      frame.status = *status;
      try {
        frame.names = chain.listCurrent();
      } catch (...) {
        chain.ascend();
        throw;
      }
      child = std::move(frame);
      return true;
    } catch (const DirectoryChain::Changed& changed) {
      return problem(changed.path, 0, kChangedKey);
    } catch (const platform::PosixError& error) {
      return problem(path, error.errnoValue());
    }
  }

  bool removeEmptied(DirectoryChain& chain, const Frame& finished) {
    const std::string path = joinPath(chain.currentPath(), finished.nameInParent);
    try {
      const int parent = chain.current();
      const auto now = platform::statNoFollow(parent, finished.nameInParent);
      if (!now) return true;
      if (!sameObject(*now, finished.status)) return problem(path, 0, kChangedKey);
      if (::unlinkat(parent, finished.nameInParent.c_str(), AT_REMOVEDIR) != 0) return problem(path, errno);
      ++report_.removedEntries;
      return true;
    } catch (const DirectoryChain::Changed& changed) {
      return problem(changed.path, 0, kChangedKey);
    } catch (const platform::PosixError& error) {
      return problem(path, error.errnoValue());
    }
  }

  bool problem(const std::string& path, int errnoValue, const char* reasonKey = "") {
    logWarning("🧹 cleaner: could not remove " + path + ": " +
               (errnoValue != 0 ? std::string(std::strerror(errnoValue)) : std::string(reasonKey)));
    if (report_.problems.size() < CleanerTreeRemoval::kKeptProblems) {
      report_.problems.push_back({path, errnoValue, errnoValue != 0 ? std::string() : std::string(reasonKey)});
    }
    ++report_.problemCount;
    return false;
  }

  const std::stop_token& stop_;
  RemovalReport& report_;
  std::uint64_t visited_ = 0;
};

}  // namespace

RemovalReport CleanerTreeRemoval::clean(const std::vector<std::string>& paths, PathCleaning cleaning,
                                        const std::vector<std::string>& excludedNames) const {
  RemovalReport report;
  RemovalWalk walk(stop_, report);
  for (const auto& path : paths) {
    if (report.cancelled) break;
    walk.cleanRoot(path, cleaning, excludedNames);
  }
  return report;
}

std::optional<CleanFailure> CleanerTreeRemoval::deleteDirectories(const std::vector<std::string>& paths,
                                                                  PathCleaning cleaning,
                                                                  const std::vector<std::string>& excludedNames) const {
  const auto report = clean(paths, cleaning, excludedNames);
  if (report.cancelled) return CleanFailure{"cleaner.error.cancelled", {}, {}};
  if (report.problemCount == 0) return std::nullopt;
  return failureFromReport(report);
}

CleanFailure failureFromReport(const RemovalReport& report) {
  // Runs on the cleaning thread: a reason that is a key is looked up when the failure is shown.
  const auto& first = report.problems.front();
  const bool systemError = first.errnoValue != 0;
  CleanFailure failure;
  const auto systemKey = systemError ? systemErrorKey(first.errnoValue) : std::nullopt;
  failure.arguments = {first.path, !systemError ? first.reasonKey
                                   : systemKey  ? *systemKey
                                                : std::string(std::strerror(first.errnoValue))};
  if (!systemError || systemKey) failure.keyArguments = {1};
  if (report.problemCount == 1) {
    failure.key = "cleaner.error.remove_failed";
  } else {
    failure.key = "cleaner.error.remove_failed_more";
    failure.arguments.push_back(std::to_string(report.problemCount - 1));
  }
  return failure;
}

}  // namespace corvane
