#include <acl/libacl.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/acl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>

#include "platform/file_system.h"
#include "platform/posix/extended_attribute_reads.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"

namespace corvane::platform {
namespace {

std::uint32_t flagsFromAttributes(const struct statx& st) {
  std::uint32_t flags = 0;
  if (st.stx_attributes_mask & STATX_ATTR_IMMUTABLE && st.stx_attributes & STATX_ATTR_IMMUTABLE) {
    flags |= kSystemImmutable;
  }
  if (st.stx_attributes_mask & STATX_ATTR_APPEND && st.stx_attributes & STATX_ATTR_APPEND) {
    flags |= kSystemAppend;
  }
  return flags;
}

FileStatus fromStatx(const struct statx& st) {
  FileStatus status;
  status.mode = st.stx_mode;
  status.inode = st.stx_ino;
  status.device = static_cast<std::int32_t>(makedev(st.stx_dev_major, st.stx_dev_minor));
  status.size = static_cast<std::int64_t>(st.stx_size);
  status.allocatedBytes = static_cast<std::int64_t>(st.stx_blocks) * 512;
  status.linkCount = st.stx_nlink;
  status.uid = st.stx_uid;
  status.gid = st.stx_gid;
  status.flags = flagsFromAttributes(st);
  status.accessed = {st.stx_atime.tv_sec, st.stx_atime.tv_nsec};
  status.modified = {st.stx_mtime.tv_sec, st.stx_mtime.tv_nsec};
  status.changed = {st.stx_ctime.tv_sec, st.stx_ctime.tv_nsec};
  return status;
}

constexpr unsigned kStatxFields = STATX_BASIC_STATS;

}  // namespace

std::optional<FileStatus> statNoFollow(int directoryDescriptor, const std::string& path) {
  struct statx st {};
  if (statx(directoryDescriptor, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_SYNC_AS_STAT, kStatxFields, &st) != 0) {
    if (errno == ENOENT) return std::nullopt;
    throwErrno(path);
  }
  return fromStatx(st);
}

FileStatus statDescriptor(int descriptor, const std::string& pathForErrors) {
  struct statx st {};
  if (statx(descriptor, "", AT_EMPTY_PATH | AT_STATX_SYNC_AS_STAT, kStatxFields, &st) != 0) {
    throwErrno(pathForErrors);
  }
  return fromStatx(st);
}

std::string readLinkText(int directoryDescriptor, const std::string& path) {
  char buffer[kLinkBufferSize];
  ssize_t length = readlinkat(directoryDescriptor, path.c_str(), buffer, sizeof buffer);
  if (length < 0) throwErrno("");
  if (static_cast<std::size_t>(length) >= kLinkBufferSize) throwErrno(ENAMETOOLONG, "");
  return std::string(buffer, static_cast<std::size_t>(length));
}

void renameExclusive(const std::string& from, const std::string& to) {
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0) throwErrno(to);
}

void exchangePaths(const std::string& first, const std::string& second) {
  if (renameat2(AT_FDCWD, first.c_str(), AT_FDCWD, second.c_str(), RENAME_EXCHANGE) != 0) throwErrno(first);
}

bool isExchangeUnsupported(int errnoValue) {
  return errnoValue == EINVAL || errnoValue == ENOTSUP || errnoValue == ENOSYS || errnoValue == EOPNOTSUPP;
}

void setFileFlags(const std::string& path, std::uint32_t flags) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) throwErrno(path);
  int current = 0;
  if (ioctl(fd.get(), FS_IOC_GETFLAGS, &current) != 0) throwErrno(path);
  int wanted = current & ~(FS_IMMUTABLE_FL | FS_APPEND_FL);
  if (flags & (kSystemImmutable | kUserImmutable)) wanted |= FS_IMMUTABLE_FL;
  if (flags & (kSystemAppend | kUserAppend)) wanted |= FS_APPEND_FL;
  if (wanted != current && ioctl(fd.get(), FS_IOC_SETFLAGS, &wanted) != 0) throwErrno(path);
}

std::vector<std::string> listExtendedAttributes(const std::string& path) {
  return splitNames(readSized([&](char* b, std::size_t n) { return llistxattr(path.c_str(), b, n); }, path));
}

std::string readExtendedAttribute(const std::string& path, const std::string& name) {
  return readSized([&](char* b, std::size_t n) { return lgetxattr(path.c_str(), name.c_str(), b, n); }, path);
}

void writeExtendedAttribute(const std::string& path, const std::string& name, const std::string& value) {
  if (lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) != 0) throwErrno(path);
}

std::vector<std::string> listExtendedAttributes(int descriptor, const std::string& pathForErrors) {
  return splitNames(readSized([&](char* b, std::size_t n) { return flistxattr(descriptor, b, n); }, pathForErrors));
}

std::string readExtendedAttribute(int descriptor, const std::string& name, const std::string& pathForErrors) {
  return readSized([&](char* b, std::size_t n) { return fgetxattr(descriptor, name.c_str(), b, n); }, pathForErrors);
}

void writeExtendedAttribute(int descriptor, const std::string& name, const std::string& value,
                            const std::string& pathForErrors) {
  if (fsetxattr(descriptor, name.c_str(), value.data(), value.size(), 0) != 0) throwErrno(pathForErrors);
}

bool hasExtendedAccessControlList(const std::string& path) {
  int result = acl_extended_file_nofollow(path.c_str());
  if (result < 0) {
    if (errno == ENOTSUP || errno == EOPNOTSUPP || errno == ENODATA) return false;
    throwErrno(path);
  }
  return result == 1;
}

namespace {
void copyAclOfType(const std::string& from, const std::string& to, acl_type_t type) {
  acl_t acl = acl_get_file(from.c_str(), type);
  if (acl == nullptr) throwErrno(from);
  int result = acl_set_file(to.c_str(), type, acl);
  int saved = errno;
  acl_free(acl);
  if (result != 0) throwErrno(saved, to);
}
}  // namespace

void copyAccessControlList(const std::string& from, const std::string& to) {
  // Without entries beyond the mode bits there is nothing the mode does not already carry.
  if (!hasExtendedAccessControlList(from)) return;
  copyAclOfType(from, to, ACL_TYPE_ACCESS);
  auto status = statNoFollow(AT_FDCWD, from);
  if (status && S_ISDIR(status->mode)) copyAclOfType(from, to, ACL_TYPE_DEFAULT);
}

void makeFifo(const std::string& path, std::uint32_t mode) {
  if (mkfifo(path.c_str(), static_cast<mode_t>(mode)) != 0) throwErrno(path);
}

void changeOwnerNoFollow(const std::string& path, std::uint32_t uid, std::uint32_t gid) {
  if (lchown(path.c_str(), uid, gid) != 0) throwErrno(path);
}

void changeMode(const std::string& path, std::uint32_t mode) {
  if (chmod(path.c_str(), static_cast<mode_t>(mode & 07777)) != 0) throwErrno(path);
}

void setTimesNoFollow(const std::string& path, FileTime accessed, FileTime modified) {
  struct timespec times[2] = {{accessed.seconds, accessed.nanoseconds}, {modified.seconds, modified.nanoseconds}};
  if (utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) throwErrno(path);
}

void flushDescriptor(int descriptor, const std::string& pathForErrors) {
  if (fsync(descriptor) != 0) throwErrno(pathForErrors);
}

void flushFileSystem(int descriptor, const std::string& pathForErrors) {
  if (syncfs(descriptor) != 0) throwErrno(pathForErrors);
}

void dropCachedPages(int descriptor, const std::string& pathForErrors) {
  int result = posix_fadvise(descriptor, 0, 0, POSIX_FADV_DONTNEED);
  if (result != 0) throwErrno(result, pathForErrors);
}

}  // namespace corvane::platform
