// Recreates FIFOs at the destination (a file copier cannot copy them) and gives a recreated
// object the owner, mode, ACL, extended attributes and times of its source.
#pragma once

#include <string>

namespace corvane {

class MigrationFileMetadata {
 public:
  // Throws MigrationIssue "error.migration_source_changed" when `from` is gone or no longer a
  // FIFO, platform::PosixError for a failed system call.
  static void createFIFO(const std::string& from, const std::string& to);
  // Owner, mode, ACL, every extended attribute, then access and modification times.
  static void restoreFIFO(const std::string& from, const std::string& to);
};

}  // namespace corvane
