// macOS: the same contract through the BSD calls the system offers natively.
#include <fcntl.h>
#include <stdio.h>
#include <sys/acl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/file_system.h"
#include "platform/posix/extended_attribute_reads.h"
#include "platform/posix_error.h"

namespace corvane::platform {
namespace {

FileStatus fromStat(const struct stat& st) {
  FileStatus status;
  status.mode = st.st_mode;
  status.inode = st.st_ino;
  status.device = static_cast<std::int32_t>(st.st_dev);
  status.size = st.st_size;
  status.allocatedBytes = static_cast<std::int64_t>(st.st_blocks) * 512;
  status.linkCount = st.st_nlink;
  status.uid = st.st_uid;
  status.gid = st.st_gid;
  status.flags = st.st_flags;
  status.accessed = {st.st_atimespec.tv_sec, st.st_atimespec.tv_nsec};
  status.modified = {st.st_mtimespec.tv_sec, st.st_mtimespec.tv_nsec};
  status.changed = {st.st_ctimespec.tv_sec, st.st_ctimespec.tv_nsec};
  return status;
}

}  // namespace

std::optional<FileStatus> statNoFollow(int directoryDescriptor, const std::string& path) {
  struct stat st {};
  if (fstatat(directoryDescriptor, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return std::nullopt;
    throwErrno(path);
  }
  return fromStat(st);
}

FileStatus statDescriptor(int descriptor, const std::string& pathForErrors) {
  struct stat st {};
  if (fstat(descriptor, &st) != 0) throwErrno(pathForErrors);
  return fromStat(st);
}

std::string readLinkText(int directoryDescriptor, const std::string& path) {
  char buffer[kLinkBufferSize];
  ssize_t length = readlinkat(directoryDescriptor, path.c_str(), buffer, sizeof buffer);
  if (length < 0) throwErrno("");
  if (static_cast<std::size_t>(length) >= kLinkBufferSize) throwErrno(ENAMETOOLONG, "");
  return std::string(buffer, static_cast<std::size_t>(length));
}

void renameExclusive(const std::string& from, const std::string& to) {
  if (renamex_np(from.c_str(), to.c_str(), RENAME_EXCL) != 0) throwErrno(to);
}

void exchangePaths(const std::string& first, const std::string& second) {
  if (renamex_np(first.c_str(), second.c_str(), RENAME_SWAP) != 0) throwErrno(first);
}

bool isExchangeUnsupported(int errnoValue) {
  return errnoValue == EINVAL || errnoValue == ENOTSUP || errnoValue == ENOSYS || errnoValue == EOPNOTSUPP;
}

void setFileFlags(const std::string& path, std::uint32_t flags) {
  if (lchflags(path.c_str(), flags) != 0) throwErrno(path);
}

std::vector<std::string> listExtendedAttributes(const std::string& path) {
  return splitNames(
      readSized([&](char* b, std::size_t n) { return listxattr(path.c_str(), b, n, XATTR_NOFOLLOW); }, path));
}

std::string readExtendedAttribute(const std::string& path, const std::string& name) {
  return readSized(
      [&](char* b, std::size_t n) { return getxattr(path.c_str(), name.c_str(), b, n, 0, XATTR_NOFOLLOW); }, path);
}

void writeExtendedAttribute(const std::string& path, const std::string& name, const std::string& value) {
  if (setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0, XATTR_NOFOLLOW) != 0) throwErrno(path);
}

std::vector<std::string> listExtendedAttributes(int descriptor, const std::string& pathForErrors) {
  return splitNames(readSized([&](char* b, std::size_t n) { return flistxattr(descriptor, b, n, 0); }, pathForErrors));
}

std::string readExtendedAttribute(int descriptor, const std::string& name, const std::string& pathForErrors) {
  return readSized([&](char* b, std::size_t n) { return fgetxattr(descriptor, name.c_str(), b, n, 0, 0); },
                   pathForErrors);
}

void writeExtendedAttribute(int descriptor, const std::string& name, const std::string& value,
                            const std::string& pathForErrors) {
  if (fsetxattr(descriptor, name.c_str(), value.data(), value.size(), 0, 0) != 0) throwErrno(pathForErrors);
}

bool hasExtendedAccessControlList(const std::string& path) {
  acl_t acl = acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED);
  if (acl == nullptr) return false;
  acl_entry_t entry;
  const bool any = acl_get_entry(acl, ACL_FIRST_ENTRY, &entry) == 0;
  acl_free(acl);
  return any;
}

void copyAccessControlList(const std::string& from, const std::string& to) {
  acl_t acl = acl_get_file(from.c_str(), ACL_TYPE_EXTENDED);
  if (acl == nullptr) acl = acl_init(0);
  if (acl == nullptr) throwErrno(from);
  int result = acl_set_file(to.c_str(), ACL_TYPE_EXTENDED, acl);
  int saved = errno;
  acl_free(acl);
  if (result != 0) throwErrno(saved, to);
}

void makeFifo(const std::string& path, std::uint32_t mode) {
  if (mkfifo(path.c_str(), static_cast<mode_t>(mode)) != 0) throwErrno(path);
}

void changeOwnerNoFollow(const std::string& path, std::uint32_t uid, std::uint32_t gid) {
  if (chown(path.c_str(), uid, gid) != 0) throwErrno(path);
}

void changeMode(const std::string& path, std::uint32_t mode) {
  if (chmod(path.c_str(), static_cast<mode_t>(mode & 07777)) != 0) throwErrno(path);
}

void setTimesNoFollow(const std::string& path, FileTime accessed, FileTime modified) {
  struct timeval times[2] = {{accessed.seconds, static_cast<int>(accessed.nanoseconds / 1000)},
                             {modified.seconds, static_cast<int>(modified.nanoseconds / 1000)}};
  if (utimes(path.c_str(), times) != 0) throwErrno(path);
}

void flushDescriptor(int descriptor, const std::string& pathForErrors) {
  if (fcntl(descriptor, F_FULLFSYNC) != 0) throwErrno(pathForErrors);
}

void flushFileSystem(int descriptor, const std::string& pathForErrors) {
  if (fcntl(descriptor, F_FULLFSYNC) != 0) throwErrno(pathForErrors);
}

void dropCachedPages(int descriptor, const std::string& pathForErrors) {
  // Reads after F_NOCACHE bypass the unified buffer cache for this descriptor's file.
  if (fcntl(descriptor, F_NOCACHE, 1) != 0) throwErrno(pathForErrors);
}

}  // namespace corvane::platform
