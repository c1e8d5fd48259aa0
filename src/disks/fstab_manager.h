// Disk protection through the system's file table: a line that pins a volume, by its UUID, to
// its mount path, so it always comes back at the same path and the links left by migrations stay
// valid. Also the ghost-directory helpers of the drift repair. One shared instance serves the
// program; tests build their own with a temporary table, volumes roots and runner.
//
// Every operation runs on the calling thread (the administrator dialog and child processes
// included); callers that publish state hand the result to their main queue.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "disks/fstab_commands.h"
#include "disks/ghost_directory.h"
#include "platform/administrator_runner.h"
#include "platform/apple_script_runner.h"
#include "platform/volume_description.h"

namespace corvane {

// An error of the domain "FstabManager": `code` and `message` as the system defines them (the
// message is the error's description, not a translated text); `key` is the localization key a
// front end shows, with `message` as detail where it says more.
//   -999 SIP on (enabling) or a mount point (cleanup); -998 outside the volumes roots; -997 the
//   directory changed after it was shown; -996 a path the macOS cleanup cannot quote; -3 a
//   volume path the file table cannot hold; -128 the dialog was dismissed; -2 the script or
//   launcher could not be started; -1 no UUID (enabling) or a failed cleanup; otherwise the
//   script's error number or the command's exit status.
struct FstabError {
  static constexpr const char* domain = "FstabManager";
  int code = 0;
  std::string message;
  std::string key;
};

class FstabManager {
 public:
  struct Configuration {
    // macOS "/private/etc/fstab"; Linux "/etc/fstab". CORVANE_FSTAB in the environment names
    // another table, so the binary can be tried against a table of one's own.
    std::string fstabPath;
    std::vector<std::string> volumesRoots;  // macOS {"/Volumes"}; Linux the media roots
    std::shared_ptr<platform::AdministratorRunner> administratorRunner;
    std::function<bool()> isSIPEnabled;  // the system's check unless a test replaces it
    std::function<platform::VolumeDescription(const std::string&)> describeVolume;
    // How privileged work is written: macOS's AppleScript texts run by `runAppleScript`, or one
    // shell command run by `administratorRunner`.
#ifdef __APPLE__
    FstabCommandStyle style = FstabCommandStyle::appleScript;
#else
    FstabCommandStyle style = FstabCommandStyle::shell;
#endif
    std::function<platform::AppleScriptOutcome(const std::string& script)> runAppleScript;
    // This system's paths, runner and checks.
    static Configuration forThisSystem();
  };

  explicit FstabManager(Configuration configuration);
  // The program's instance, made on first use with forThisSystem().
  static FstabManager& shared();

  const Configuration& configuration() const { return configuration_; }

  // Never fails: an unknown UUID or an unreadable table answers false.
  bool isDiskProtected(const std::string& volumePath);
  // The one-line command a user can run by hand; absent when the UUID is unknown.
  std::optional<std::string> getProtectionShellCommand(const std::string& volumePath);
  // Writes the entry for the volume through the administrator runner; absent error = success.
  std::optional<FstabError> enableDiskProtection(const std::string& volumePath);
  void openTerminalAndRun(const std::string& command);

  // The volume's UUID, cached per path until forgetVolume(path) (called when the disk goes).
  std::optional<std::string> getVolumeUUID(const std::string& volumePath);
  void forgetVolume(const std::string& volumePath);
  // Absent when the volume does not tell; the entry then names a default (see entryFields).
  std::optional<std::string> getFileSystemType(const std::string& volumePath);
  bool isSIPEnabled() const;

  // The fstab line for a volume (tested on its own).
  static std::string fstabEntry(const std::string& uuid, const std::string& volumePath,
                                const std::string& fileSystemType, const std::string& options);

  bool isMountPoint(const std::string& path) const;
  std::optional<std::string> getDeviceNode(const std::string& path) const;
  // True for an existing directory, not a mount point, that lists at least one entry.
  bool checkGhostDirectory(const std::string& path) const;
  // What the directory holds; absent when it is not a ghost directory.
  std::optional<GhostDirectoryContents> describeGhostDirectory(const std::string& path) const;
  // Removes a ghost directory with administrator rights. Refused without a prompt when the path
  // is a mount point (-999), not a volume's place directly below a volumes root (-998), or, when
  // `confirmed` is given, no longer the directory the user was shown (-997).
  std::optional<FstabError> cleanupGhostDirectory(const std::string& path,
                                                  const GhostDirectoryContents* confirmed = nullptr);

 private:
  struct EntryFields {
    std::string uuid;
    std::string entry;
  };
  // The volume's UUID and its table entry; absent (logged) when the UUID is unknown.
  std::optional<EntryFields> entryFields(const std::string& volumePath);
  std::optional<FstabError> appendEntryWithAppleScript(const std::string& entry);
  std::optional<FstabError> appendEntryWithShell(const std::string& entry, const std::string& volumePath);
  std::optional<FstabError> runCleanup(const std::string& path, const GhostDirectoryContents* confirmed) const;

  Configuration configuration_;
  std::mutex cacheLock_;
  std::map<std::string, std::string> uuidCache_;
};

}  // namespace corvane
