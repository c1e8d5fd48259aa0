#include "engine/verify/migration_entry_repair.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/manifest/migration_file_metadata.h"
#include "engine/migration_issue.h"
#include "platform/file_copy.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/tree_removal.h"
#include "support/paths.h"

namespace corvane {

void MigrationEntryRepair::rebuild(const MigrationRepairRequest& request) {
  using Kind = MigrationEntry::Kind;
  const std::string& destination = request.destination;
  if (request.expected.kind == Kind::socket || request.expected.kind == Kind::special) {
    throw MigrationIssue("error.migration_copy_mismatch", destination);
  }
  const auto present = MigrationEntry::read(destination, AT_FDCWD);
  // A directory keeps its children: only its own metadata can be wrong, and its children are
  // checked (and repaired) one by one.
  const bool keepDirectory = request.expected.kind == Kind::directory && present && present->kind == Kind::directory;
  if (present && !keepDirectory) platform::removeTree(destination);

  switch (request.expected.kind) {
    case Kind::regular:
      if (request.hardLinkTo) {
        if (::link(request.hardLinkTo->c_str(), destination.c_str()) != 0) platform::throwErrno(destination);
      } else {
        platform::copyRegularFile(request.source, destination);
      }
      break;
    case Kind::symbolicLink: {
      const std::string target = request.linkTarget ? *request.linkTarget : request.expected.link.value_or("");
      if (::symlink(target.c_str(), destination.c_str()) != 0) platform::throwErrno(destination);
      break;
    }
    case Kind::directory:
      if (!keepDirectory && ::mkdir(destination.c_str(), 0700) != 0) platform::throwErrno(destination);
      platform::copyObjectMetadata(request.source, destination);
      break;
    case Kind::fifo:
      MigrationFileMetadata::createFIFO(request.source, destination);
      break;
    case Kind::socket:
    case Kind::special:
      break;
  }
  // Removing and making an entry moved its folder's times away from the original folder's, and
  // a folder's own check has already passed by the time its entries are checked.
  if (!keepDirectory && !request.relativePath.empty()) {
    if (const auto folder = platform::statNoFollow(AT_FDCWD, parentPath(request.source))) {
      platform::setTimesNoFollow(parentPath(destination), folder->accessed, folder->modified);
    }
  }
}

}  // namespace corvane
