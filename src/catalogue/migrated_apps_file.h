// Where a disk keeps its record file and how it is read and written. The disk may carry
// anything (it is removable and shared with other machines), so the hidden directory is never
// followed when it is a link, only a regular file of bounded size is read, and writes replace
// the file atomically inside that directory, so nothing outside it is ever written.
//
// Error contract: throws PosixError for file-system failures and MigratedAppsFormatError for
// contents that cannot be encoded or decoded.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "catalogue/migrated_app.h"
#include "platform/unique_fd.h"

namespace corvane {

class MigratedAppsFile {
 public:
  MigratedAppsFile() = delete;

  static constexpr std::string_view kDirectoryName = ".corvane";
  static constexpr std::string_view kFileName = "migrated_apps.json";

  static std::string directoryPath(const std::string& disk);
  static std::string currentPath(const std::string& disk);  // <disk>/.corvane/migrated_apps.json
  static std::string legacyPath(const std::string& disk);   // <disk>/migrated_apps.json

  // Creates the hidden directory inside the existing disk root and marks it hidden. The disk
  // root itself is never created: a missing mount point must not become a folder on the
  // internal disk.
  static void prepareDirectory(const std::string& disk);

  // Reads a record file whose directory is opened without following a link.
  static std::vector<MigratedApp> read(const std::string& filePath);
  // Reads <disk>/migrated_apps.json (the disk root may be reached through links).
  static std::vector<MigratedApp> readLegacy(const std::string& disk);
  // Encodes and replaces `filePath` atomically; its directory is opened without following a link.
  static void write(const std::vector<MigratedApp>& apps, const std::string& filePath);
  // Removes the legacy file (a link there is removed itself, never its target).
  static void removeLegacy(const std::string& disk);

  // Holds the disk's record file for one read-change-write, across processes: two commands
  // saving at once would otherwise each write the list they read, and one record would be
  // lost. Waits at most 30 s for another holder (a record change takes milliseconds), then
  // throws PosixError (EWOULDBLOCK).
  class Lock {
   public:
    explicit Lock(const std::string& disk);

   private:
    platform::UniqueFd fd_;
  };
};

}  // namespace corvane
