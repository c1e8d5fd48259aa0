#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "platform/file_copy.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"
#include "support/descriptor_io.h"

namespace corvane::platform {
namespace {

constexpr std::size_t kCopyChunk = 1 << 20;

void changeOwnerIfPermitted(int result, const std::string& path) {
  if (result == 0) return;
  // Without administrator rights the copy keeps the copying user as its owner, as the system's
  // own copy does; as root a failure is real.
  if (errno == EPERM && geteuid() != 0) return;
  throwErrno(path);
}

// Copies [offset, end) with the kernel when it can and through a buffer when it cannot (across
// volumes copy_file_range fails with EXDEV on many kernels).
void copyRange(int from, int to, off_t offset, off_t end, std::vector<char>& buffer, bool& kernelCopy,
               const std::string& fromPath, const std::string& toPath) {
  while (offset < end) {
    const auto wanted = static_cast<std::size_t>(std::min<off_t>(end - offset, static_cast<off_t>(kCopyChunk)));
    if (kernelCopy) {
      off_t in = offset;
      off_t out = offset;
      ssize_t copied = copy_file_range(from, &in, to, &out, wanted, 0);
      if (copied > 0) {
        offset += copied;
        continue;
      }
      if (copied == 0) break;  // the source became shorter
      if (errno == EINTR) continue;
      if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP && errno != ENOTSUP) {
        throwErrno(toPath);
      }
      kernelCopy = false;
    }
    if (buffer.empty()) buffer.resize(kCopyChunk);
    ssize_t got = pread(from, buffer.data(), wanted, offset);
    if (got < 0) {
      if (errno == EINTR) continue;
      throwErrno(fromPath);
    }
    if (got == 0) break;
    if (lseek(to, offset, SEEK_SET) < 0) throwErrno(toPath);
    if (!writeAll(to, {buffer.data(), static_cast<std::size_t>(got)})) throwErrno(toPath);
    offset += got;
  }
}

void copyData(int from, int to, off_t size, const std::string& fromPath, const std::string& toPath) {
  std::vector<char> buffer;
  bool kernelCopy = true;
  off_t position = 0;
  while (position < size) {
    off_t data = lseek(from, position, SEEK_DATA);
    if (data < 0) {
      if (errno == ENXIO) break;  // only a hole remains
      if (errno == EINVAL || errno == EOPNOTSUPP) {
        copyRange(from, to, position, size, buffer, kernelCopy, fromPath, toPath);
        break;
      }
      throwErrno(fromPath);
    }
    off_t hole = lseek(from, data, SEEK_HOLE);
    if (hole < 0) throwErrno(fromPath);
    copyRange(from, to, data, std::min(hole, size), buffer, kernelCopy, fromPath, toPath);
    position = hole;
  }
  // A trailing hole is made by the length alone.
  if (ftruncate(to, size) != 0) throwErrno(toPath);
}

void copyAttributes(int from, int to, const std::string& fromPath, const std::string& toPath) {
  for (const auto& name : listExtendedAttributes(from, fromPath)) {
    writeExtendedAttribute(to, name, readExtendedAttribute(from, name, fromPath), toPath);
  }
}

}  // namespace

void copyRegularFile(const std::string& from, const std::string& to) {
  UniqueFd source(open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!source) throwErrno(from);
  struct stat st {};
  if (fstat(source.get(), &st) != 0) throwErrno(from);
  if (!S_ISREG(st.st_mode)) throwErrno(EINVAL, from);

  UniqueFd target(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!target) throwErrno(to);
  try {
    copyData(source.get(), target.get(), st.st_size, from, to);
    changeOwnerIfPermitted(fchown(target.get(), st.st_uid, st.st_gid), to);
    if (fchmod(target.get(), st.st_mode & 07777) != 0) throwErrno(to);
    copyAccessControlList(from, to);
    copyAttributes(source.get(), target.get(), from, to);
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    if (futimens(target.get(), times) != 0) throwErrno(to);
    if (target.close() != 0) throwErrno(to);
  } catch (...) {
    target.reset();
    unlink(to.c_str());
    throw;
  }
}

void copyObjectMetadata(const std::string& from, const std::string& to) {
  auto status = statNoFollow(AT_FDCWD, from);
  if (!status) throwErrno(ENOENT, from);
  changeOwnerIfPermitted(lchown(to.c_str(), status->uid, status->gid), to);
  // A link's own mode cannot be changed here, and means nothing.
  if (!S_ISLNK(status->mode)) {
    changeMode(to, status->mode);
    copyAccessControlList(from, to);
  }
  for (const auto& name : listExtendedAttributes(from)) {
    writeExtendedAttribute(to, name, readExtendedAttribute(from, name));
  }
  setTimesNoFollow(to, status->accessed, status->modified);
}

}  // namespace corvane::platform
