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

#include "platform/administrator_runner.h"
#include "platform/volume_description.h"

namespace corvane {

// An error of the domain "FstabManager": `code` and `message` as the system defines them (the
// message is the error's description, not a translated text); `key` is the localization key a
// front end shows, with `message` as detail where it says more.
struct FstabError {
  static constexpr const char* domain = "FstabManager";
  int code = 0;
  std::string message;
  std::string key;
};

// What a ghost directory holds, shown to the user before it is removed; the identity lets the
// removal refuse a directory that was replaced after the user confirmed.
struct GhostDirectoryContents {
  std::uint64_t entryCount = 0;         // everything inside, at every depth
  std::int64_t totalBytes = 0;          // sizes of the regular files inside
  std::vector<std::string> firstNames;  // the first names directly inside, in listing order
  bool countStopped = false;            // the tree was larger than what was counted
  dev_t device = 0;
  ino_t inode = 0;
};

inline constexpr std::uint64_t kGhostCountLimit = 100000;

class FstabManager {
 public:
  struct Configuration {
    std::string fstabPath;                  // macOS "/private/etc/fstab", Linux "/etc/fstab"
    std::vector<std::string> volumesRoots;  // macOS {"/Volumes"}; Linux the media roots
    std::shared_ptr<platform::AdministratorRunner> administratorRunner;
    std::function<bool()> isSIPEnabled;  // the system's check unless a test replaces it
    std::function<platform::VolumeDescription(const std::string&)> describeVolume;
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
  // is a mount point (-999), not below a volumes root (-998), or, when `confirmed` is given, no
  // longer the directory the user was shown.
  std::optional<FstabError> cleanupGhostDirectory(const std::string& path,
                                                  const GhostDirectoryContents* confirmed = nullptr);
  // The refusal cleanupGhostDirectory would give before asking for anything (the guards and the
  // identity check), so a repair can refuse before it unmounts the disk.
  std::optional<FstabError> cleanupRefusal(const std::string& path, const GhostDirectoryContents* confirmed) const;

 private:
  std::optional<std::string> fileSystemTypeOf(const std::string& volumePath) const;
  std::string entryFor(const std::string& uuid, const std::string& volumePath) const;

  Configuration configuration_;
  std::mutex cacheLock_;
  std::map<std::string, std::string> uuidCache_;
};

}  // namespace corvane
