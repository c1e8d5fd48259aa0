// Whether any process holds a file of an item open: runs the machine's open-file lister, keeps
// the records whose file identity belongs to the item, says why each one matters and groups
// them by process, and raises a blocking issue when the item is in use.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "engine/manifest/migration_entry.h"
#include "engine/manifest/migration_file_identity.h"
#include "engine/migration_issue.h"
#include "platform/process_details.h"

namespace corvane {

class MigrationOpenFiles {
 public:
  // One run of the lister: its exit status and both output streams.
  struct Result {
    std::int32_t status = 0;
    std::string standardOutput;
    std::string standardError;
  };

  // Where a file of the item lies in it; every further path with the same identity is a hard
  // link to it. The paths are the manifest's keys: an index lives no longer than its manifest.
  struct IndexedFile {
    std::string_view relativePath;
    std::vector<std::string_view> otherPaths;
    MigrationEntry::Kind kind = MigrationEntry::Kind::regular;
  };
  // The item's files by identity: the manifest's entries sorted by identity, 24 bytes each, so
  // that an index of a million files costs a fraction of the manifest it points into.
  class FileIndex {
   public:
    FileIndex() = default;
    explicit FileIndex(const MigrationManifest& manifest);
    // The file with this identity, its first path in manifest order; absent when none has it.
    std::optional<IndexedFile> find(const MigrationFileIdentity& identity) const;
    // Every identity once, in order (device, then inode).
    std::vector<MigrationFileIdentity> identities() const;
    bool empty() const { return files_.empty(); }

   private:
    using Named = std::pair<MigrationFileIdentity, const MigrationManifest::value_type*>;
    std::vector<Named> files_;
  };
  // One run of a lister over the item at `source`. The item and its index let a lister leave out
  // files and file systems of no interest (the native scan does); lsof always lists everything.
  using Inspect = std::function<Result(const std::string& source, const FileIndex& index)>;

  enum class Reason { directory, read_only, working_directory, runtime, endpoint, writable, unknown };

  // One open-file record that touches the item.
  struct Reference {
    pid_t pid = 0;
    std::string command;
    std::string descriptor;
    std::string access;
    std::string type;
    std::int32_t device = 0;
    std::uint64_t inode = 0;
    std::string name;  // as the lister printed it, unescaped
    Reason reason = Reason::unknown;
    std::string itemPath;  // relative path in the item
    // The process reached the file through a hard link other than the item's own paths.
    bool throughOtherHardLink = false;
    bool operator==(const Reference&) const = default;
  };

  struct GroupPath {
    std::string itemPath;
    std::optional<std::string> openedAs;  // the other hard link's name, when it was one
    bool operator==(const GroupPath&) const = default;
  };

  enum class GroupKind { process, bundleOrigin, postgres, gitMonitor, filePicker, unnamed };

  // The references of one process, or of one named family of processes.
  struct Group {
    GroupKind kind = GroupKind::process;
    std::string name;  // the process or bundle name; empty for the families named by a key
    std::vector<pid_t> pids;
    std::vector<GroupPath> paths;
    std::vector<Reason> reasons;
  };

  // The item is in use: carries the groups for the message.
  class Blocked : public MigrationIssue {
   public:
    Blocked(std::string source, std::vector<Group> groups);
    const std::vector<Group>& groups() const noexcept { return groups_; }
    const std::string& source() const noexcept { return detail(); }

   private:
    std::vector<Group> groups_;
  };

  using Identify = std::function<std::optional<platform::ProcessDetails>(pid_t)>;
  // Told the number of the re-check about to happen (1, 2, ...); waits and answers whether to
  // check again.
  using WaitForRetry = std::function<bool(int attempt)>;

  // The platform's default lister over everything (the native scan on Linux, lsof on macOS).
  static Result inspect();
  // The same, told which item matters.
  static Result inspect(const std::string& source, const FileIndex& index);
  // lsof "-nP +c 0 -F0pcfatDin" with LC_ALL=C: 8 s to exit, then terminate, 1 s, kill; 2 s for
  // its output. Throws "migration.preflight.occupancy_unknown" on a time-out or an output that
  // overflowed or could not be read; a failure to start passes through as platform::PosixError.
  static Result inspectWithLsof(const std::string& executable);
  // The native scan, as a lister run (status 1 when nothing at all is open). It gets the lister's
  // 8 s; a scan still running then (stuck on a file system that stopped answering) is abandoned
  // and throws "migration.preflight.occupancy_unknown".
  static Result inspectNatively();
  // The native scan of the item's files only (status 1 when none of them is open), bounded alike.
  static Result inspectNatively(const std::string& source, const FileIndex& index);
  static Inspect defaultInspect();
  static Inspect lsofInspect(const std::string& executable);

  static FileIndex fileIndex(const MigrationManifest& manifest);

  // Parses lsof's NUL-separated field output and keeps the records whose identity is in the
  // index, each record once. Throws MigrationIssue "migration.preflight.occupancy_unknown" on
  // output it cannot read.
  static std::vector<Reference> references(std::string_view output, const std::string& source, const FileIndex& index);

  static Reason reasonFor(std::string_view descriptor, std::string_view access, std::string_view type);
  static std::string_view reasonName(Reason reason);

  static std::vector<Group> grouped(const std::vector<Reference>& references, const Identify& identify);

  // Whether a process is git's file-system monitor daemon ("git fsmonitor--daemon ..."), by its
  // command name and, when known, its program and arguments.
  static bool isGitMonitor(std::string_view command, const std::optional<platform::ProcessDetails>& details);

  // One run of the lister, checked and parsed: the references to the item. Every doubt (a
  // status other than 0 or 1, anything on standard error, status 0 without output, unreadable
  // output, a lister that failed) throws "migration.preflight.occupancy_unknown" with `source`.
  static std::vector<Reference> occupyingReferences(const std::string& source, const FileIndex& index,
                                                    const Inspect& inspect);

  // Returns when nothing holds the item open; re-checks while `waitForRetry` allows, telling
  // `onRecheck` before each; throws Blocked when the item stays in use.
  static void requireIdle(const std::string& source, const FileIndex& index, const Inspect& inspect,
                          const WaitForRetry& waitForRetry, const std::function<void()>& onRecheck,
                          const Identify& identify);

  // Waits `interval` before each of `count` re-checks.
  static WaitForRetry waitBetweenRechecks(int count, std::chrono::milliseconds interval);
  static WaitForRetry noRecheck();
  static Identify defaultIdentify();
};

}  // namespace corvane
