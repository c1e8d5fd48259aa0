// The manifest walk. Children are read relative to their parent's open directory, which keeps
// each lookup short and means a directory swapped for a link mid-walk is never entered.
#include "engine/manifest/migration_snapshot.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "engine/manifest/migration_snapshot_lookahead.h"
#include "engine/migration_issue.h"
#include "platform/directory_names.h"
#include "platform/file_access.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"

namespace corvane {
namespace {

// Past this depth children are looked up by absolute path, so a deep tree cannot run the
// process out of file descriptors.
constexpr int kMaximumOpenDepth = 128;

// A folder's names are looked at in windows of this many, which bounds the looks held at once
// however many names one folder has.
constexpr std::size_t kLooksPerWindow = 1024;

// What the removable test needs to know about the directory holding an entry.
struct ParentAccess {
  bool writableAndSearchable = true;
  bool sticky = false;
  std::uint32_t owner = 0;
};

class SnapshotWalk {
 public:
  // Takes each entry as it is read and answers the relative path its children are named under:
  // the manifest's own key when the entries are kept, the walk's local string when they stream.
  using Sink = std::function<const std::string&(std::string& relativePath, MigrationEntry& entry)>;

  SnapshotWalk(RuntimeEntries runtime, ReadableCheck readable, RemovableCheck removable,
               const MigrationSnapshot::Visited& visited, Sink sink)
      : runtime_(runtime),
        readable_(readable),
        removable_(removable),
        visited_(visited),
        sink_(std::move(sink)),
        user_(getuid()),
        effectiveUser_(geteuid()) {}

  void run(const std::string& root) {
    SnapshotLook look = SnapshotLook::at(AT_FDCWD, root);
    visit(AT_FDCWD, root, "", std::string(), ParentAccess{}, 0, look);
  }

 private:
  // `lookupDirectory` + `name` reaches the object, and `look` is what a look at it found;
  // `parentPath` + "/" + `name` is its absolute path, only built when a message or a path-based
  // check needs it.
  void visit(int lookupDirectory, const std::string& name, const std::string& parentPath, std::string relativePath,
             const ParentAccess& parent, int depth, SnapshotLook& look) {
    auto pathOf = [&] { return parentPath.empty() ? name : parentPath == "/" ? "/" + name : parentPath + "/" + name; };
    if (look.failure) std::rethrow_exception(look.failure);
    if (!look.status) throw MigrationIssue("error.migration_source_changed", pathOf());
    const auto& status = look.status;
    const auto kind = MigrationEntry::kindOfMode(status->mode);
    MigrationEntry entry = entryFromStatus(*status, std::move(look.linkText));

    if (runtime_ == RuntimeEntries::refuse && isRuntimeKind(kind))
      throw MigrationIssue("error.migration_special_file", pathOf());
    if (readable_ == ReadableCheck::check && kind == MigrationEntry::Kind::regular &&
        !readable(lookupDirectory, name, *status)) {
      throw MigrationIssue("migration.preflight.unreadable", pathOf());
    }
    if (removable_ == RemovableCheck::check) {
      if (auto key = removableFailure(entry, *status, relativePath.empty(), parent)) {
        throw MigrationIssue(*key, pathOf());
      }
    }

    const bool directory = kind == MigrationEntry::Kind::directory;
    const std::string& stored = sink_(relativePath, entry);
    if (visited_) visited_(stored);
    if (directory) visitChildren(lookupDirectory, name, pathOf(), stored, *status, depth);
  }

  static bool isRuntimeKind(MigrationEntry::Kind kind) {
    using Kind = MigrationEntry::Kind;
    return kind == Kind::special || kind == Kind::socket || kind == Kind::fifo;
  }

  // The owner's class of a file is its owner bits alone (an access list never narrows it), so
  // they answer for the owner without a request to the file system; anyone else opens the file,
  // as the copy will. Most items belong to the user who moves them.
  bool readable(int lookupDirectory, const std::string& name, const platform::FileStatus& status) const {
    if (status.uid == effectiveUser_ && (status.mode & S_IRUSR)) return true;
    return canOpen(lookupDirectory, name);
  }

  static bool canOpen(int lookupDirectory, const std::string& name) {
    // Opening proves the permission; O_NONBLOCK keeps a file with mandatory locks or a slow
    // device from stalling the scan.
    int fd = openat(lookupDirectory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    return fd >= 0 && close(fd) == 0;
  }

  std::optional<const char*> removableFailure(const MigrationEntry& entry, const platform::FileStatus& status,
                                              bool isRoot, const ParentAccess& parent) const {
    if (entry.flags & platform::kLockedFlagsMask) return "migration.preflight.locked";
    // A directory's own write and search permission is checked once it is open (visitChildren),
    // with the same request that tells its children whether they can be deleted.
    if (isRoot || entry.kind == MigrationEntry::Kind::symbolicLink) return std::nullopt;
    bool deletable = parent.writableAndSearchable;
    if (deletable && parent.sticky) deletable = user_ == 0 || user_ == status.uid || user_ == parent.owner;
    if (!deletable) return "migration.preflight.not_removable";
    return std::nullopt;
  }

  void visitChildren(int lookupDirectory, const std::string& name, const std::string& path,
                     const std::string& relativePath, const platform::FileStatus& status, int depth) {
    platform::UniqueFd directory(
        openat(lookupDirectory, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory) {
      if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP)
        throw MigrationIssue("error.migration_source_changed", path);
      // A folder that cannot be opened may also be one whose children cannot be removed, which
      // is the message this check owes.
      if (errno == EACCES && removable_ == RemovableCheck::check &&
          !platform::isWritableAndSearchableAt(lookupDirectory, name)) {
        throw MigrationIssue("migration.preflight.not_removable", path);
      }
      platform::throwErrno(path);
    }
    // The object opened must be the one just recorded, not something put in its place.
    auto opened = platform::statDescriptor(directory.get(), path);
    if (opened.inode != status.inode || opened.device != status.device) {
      throw MigrationIssue("error.migration_source_changed", path);
    }
    std::vector<std::string> names = platform::directoryNames(directory.get(), path);
    // In the manifest's order, so that each entry is added at its end rather than searched for
    // among all the others; a listing comes in the file system's own order.
    std::sort(names.begin(), names.end());

    ParentAccess access;
    if (removable_ == RemovableCheck::check) {
      access.writableAndSearchable = platform::isWritableAndSearchableAt(directory.get(), ".");
      if (!access.writableAndSearchable) throw MigrationIssue("migration.preflight.not_removable", path);
      access.sticky = (status.mode & S_ISVTX) != 0;
      access.owner = status.uid;
    }
    const bool byDescriptor = depth < kMaximumOpenDepth;
    std::vector<std::string> absolute;
    if (!byDescriptor) {
      directory.reset();
      absolute.reserve(names.size());
      for (const auto& child : names) absolute.push_back(path == "/" ? "/" + child : path + "/" + child);
    }
    const int lookupChildren = byDescriptor ? directory.get() : AT_FDCWD;
    const auto& lookups = byDescriptor ? names : absolute;
    const std::string prefix = relativePath.empty() ? std::string() : relativePath + "/";
    for (std::size_t begin = 0; begin < names.size(); begin += kLooksPerWindow) {
      const std::size_t end = std::min(names.size(), begin + kLooksPerWindow);
      SnapshotLookahead::Window looks(lookahead_, lookupChildren, lookups, begin, end);
      for (std::size_t index = begin; index < end; ++index) {
        visit(lookupChildren, lookups[index], byDescriptor ? path : std::string(), prefix + names[index], access,
              depth + 1, looks.at(index));
      }
    }
  }

  RuntimeEntries runtime_;
  ReadableCheck readable_;
  RemovableCheck removable_;
  const MigrationSnapshot::Visited& visited_;
  Sink sink_;
  SnapshotLookahead lookahead_;
  uid_t user_;
  uid_t effectiveUser_;
};

}  // namespace

MigrationManifest MigrationSnapshot::walk(const std::string& root, RuntimeEntries runtimeEntries,
                                          ReadableCheck readable, RemovableCheck removable, const Visited& visited) {
  MigrationManifest manifest;
  SnapshotWalk(runtimeEntries, readable, removable, visited,
               [&manifest](std::string& relativePath, MigrationEntry& entry) -> const std::string& {
                 // Parents come before their children and names in order, so most entries belong
                 // at the end, where the hint makes the insertion constant time.
                 return manifest.insert_or_assign(manifest.end(), std::move(relativePath), std::move(entry))->first;
               })
      .run(root);
  return manifest;
}

void MigrationSnapshot::walkEntries(const std::string& root, RuntimeEntries runtimeEntries, ReadableCheck readable,
                                    RemovableCheck removable, const Each& each, const Visited& visited) {
  SnapshotWalk(runtimeEntries, readable, removable, visited,
               [&each](std::string& relativePath, MigrationEntry& entry) -> const std::string& {
                 each(relativePath, entry);
                 return relativePath;
               })
      .run(root);
}

}  // namespace corvane
