#include "platform/atomic_file_replacement.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>

#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "support/descriptor_io.h"

namespace corvane::platform {
namespace {

std::string temporaryNameFor(const std::string& name, unsigned attempt) {
  static std::atomic<unsigned> counter{0};
  const auto clock = std::chrono::steady_clock::now().time_since_epoch().count();
  return "." + name + "." + std::to_string(::getpid()) + "." + std::to_string(counter.fetch_add(1)) + "." +
         std::to_string(static_cast<unsigned long long>(clock) + attempt) + ".tmp";
}

}  // namespace

AtomicFileReplacement::AtomicFileReplacement(int directoryDescriptor, std::string name, std::string pathForErrors)
    : name_(std::move(name)), pathForErrors_(std::move(pathForErrors)) {
  directory_.reset(::fcntl(directoryDescriptor, F_DUPFD_CLOEXEC, 0));
  if (!directory_) throwErrno(pathForErrors_);
  for (unsigned attempt = 0;; ++attempt) {
    temporaryName_ = temporaryNameFor(name_, attempt);
    file_.reset(
        ::openat(directory_.get(), temporaryName_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (file_) break;
    if (errno != EEXIST || attempt >= 16) throwErrno(pathForErrors_);
  }
}

AtomicFileReplacement::~AtomicFileReplacement() {
  if (committed_) return;
  file_.reset();
  ::unlinkat(directory_.get(), temporaryName_.c_str(), 0);
}

void AtomicFileReplacement::write(std::string_view data) {
  if (!writeAll(file_.get(), data)) throwErrno(pathForErrors_);
}

void AtomicFileReplacement::commit() {
  flushDescriptor(file_.get(), pathForErrors_);
  if (file_.close() != 0) throwErrno(pathForErrors_);
  // renameat replaces a link planted under the name instead of writing through it.
  if (::renameat(directory_.get(), temporaryName_.c_str(), directory_.get(), name_.c_str()) != 0)
    throwErrno(pathForErrors_);
  committed_ = true;
  // Some FUSE file systems cannot flush a directory; the rename itself has happened then.
  if (::fsync(directory_.get()) != 0 && errno != EINVAL && errno != ENOSYS && errno != ENOTSUP)
    throwErrno(pathForErrors_);
}

}  // namespace corvane::platform
