#include "engine/verify/migration_content_comparison.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "engine/migration_issue.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"
#include "support/descriptor_io.h"

namespace corvane {
namespace {

// Fills as much of `buffer` as the file still has; fewer bytes only at its end.
std::size_t readChunk(int descriptor, char* buffer, std::size_t capacity, const std::string& path) {
  const ssize_t filled = readFully(descriptor, buffer, capacity);
  if (filled < 0) platform::throwErrno(path);
  return static_cast<std::size_t>(filled);
}

bool sameObject(const platform::FileStatus& status, const MigrationEntry& entry) {
  return status.inode == entry.inode && status.device == entry.device;
}

}  // namespace

MigrationContentComparison::MigrationContentComparison() : original_(kChunkSize), copy_(kChunkSize) {}

bool MigrationContentComparison::sameContents(const std::string& original, const MigrationEntry& expected,
                                              const std::string& copy, const MigrationEntry& copyEntry,
                                              const std::function<void(std::int64_t)>& bytesRead,
                                              std::optional<platform::OpenedAhead> openedAhead) {
  platform::UniqueFd copyFd;
  if (openedAhead && sameObject(openedAhead->status, copyEntry)) copyFd = std::move(openedAhead->descriptor);
  if (!copyFd) {
    copyFd.reset(::open(copy.c_str(), O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
    if (!copyFd) {
      if (errno == ENOENT || errno == ELOOP) return false;
      platform::throwErrno(copy);
    }
    if (!sameObject(platform::statDescriptor(copyFd.get(), copy), copyEntry)) return false;
    // The copy was flushed before the verification began; without its cached pages every read
    // below has to come from the device, so lost or damaged writes show.
    platform::dropCachedPages(copyFd.get(), copy);
  }

  platform::UniqueFd originalFd(::open(original.c_str(), O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
  if (!originalFd) {
    if (errno == ENOENT || errno == ELOOP) throw MigrationIssue("error.migration_source_changed", original);
    platform::throwErrno(original);
  }
  if (!sameObject(platform::statDescriptor(originalFd.get(), original), expected)) {
    throw MigrationIssue("error.migration_source_changed", original);
  }

  for (;;) {
    const std::size_t fromOriginal = readChunk(originalFd.get(), original_.data(), kChunkSize, original);
    const std::size_t fromCopy = readChunk(copyFd.get(), copy_.data(), kChunkSize, copy);
    if (fromOriginal != fromCopy) return false;
    if (fromOriginal == 0) return true;
    if (std::memcmp(original_.data(), copy_.data(), fromOriginal) != 0) return false;
    if (bytesRead) bytesRead(static_cast<std::int64_t>(fromOriginal));
  }
}

}  // namespace corvane
