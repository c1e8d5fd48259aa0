#include "engine/manifest/migration_file_metadata.h"

#include <fcntl.h>

#include "engine/manifest/migration_entry.h"
#include "engine/migration_issue.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"

namespace corvane {

void MigrationFileMetadata::createFIFO(const std::string& from, const std::string& to) {
  auto entry = MigrationEntry::read(from, AT_FDCWD);
  if (!entry || entry->kind != MigrationEntry::Kind::fifo) throw MigrationIssue("error.migration_source_changed", from);
  platform::makeFifo(to, 0600);
  restoreFIFO(from, to);
}

void MigrationFileMetadata::restoreFIFO(const std::string& from, const std::string& to) {
  auto status = platform::statNoFollow(AT_FDCWD, from);
  if (!status) platform::throwErrno(ENOENT, from);
  platform::changeOwnerNoFollow(to, status->uid, status->gid);
  platform::changeMode(to, status->mode & 07777);
  platform::copyAccessControlList(from, to);
  for (const auto& name : platform::listExtendedAttributes(from)) {
    platform::writeExtendedAttribute(to, name, platform::readExtendedAttribute(from, name));
  }
  platform::setTimesNoFollow(to, status->accessed, status->modified);
}

}  // namespace corvane
