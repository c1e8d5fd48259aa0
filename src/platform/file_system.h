// The file-system calls the engine is built on, each reading or changing exactly one object and
// never following a symbolic link unless its name says so.
//
// Error contract: every function throws PosixError (errno + the path concerned) on failure,
// except where a return type of std::optional documents "absent" (ENOENT) as a normal result.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvane::platform {

struct FileTime {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
  bool operator==(const FileTime&) const = default;
};

// BSD file flag bits. The Linux implementation reports its immutable and append-only
// attributes as the SF_ bits, so the mask below means the same on every platform.
inline constexpr std::uint32_t kUserImmutable = 0x2;
inline constexpr std::uint32_t kUserAppend = 0x4;
inline constexpr std::uint32_t kSystemImmutable = 0x20000;
inline constexpr std::uint32_t kSystemAppend = 0x40000;
inline constexpr std::uint32_t kLockedFlagsMask = 0x60006;

struct FileStatus {
  std::uint32_t mode = 0;  // full st_mode, type bits included
  std::uint64_t inode = 0;
  std::int32_t device = 0;
  std::int64_t size = 0;
  std::int64_t allocatedBytes = 0;  // blocks actually used on the volume
  std::uint64_t linkCount = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::uint32_t flags = 0;  // BSD flag bits, see above
  FileTime accessed;
  FileTime modified;
  FileTime changed;
};

// fstatat(dirfd, path, AT_SYMLINK_NOFOLLOW) with the file flags. Absent on ENOENT.
std::optional<FileStatus> statNoFollow(int directoryDescriptor, const std::string& path);
FileStatus statDescriptor(int descriptor, const std::string& pathForErrors);

// The text of a symbolic link, read into a 1025-byte buffer: a result of 1025 bytes or more is
// refused (the text may be cut), as is any failure. Invalid UTF-8 is kept byte for byte; the
// caller decides how to present it.
inline constexpr std::size_t kLinkBufferSize = 1025;
std::string readLinkText(int directoryDescriptor, const std::string& path);

// Replaces nothing: fails with EEXIST when `to` exists.
void renameExclusive(const std::string& from, const std::string& to);
// Swaps the two names atomically. File systems that cannot swap fail with EINVAL, ENOTSUP or
// ENOSYS; isExchangeUnsupported() recognises those.
void exchangePaths(const std::string& first, const std::string& second);
bool isExchangeUnsupported(int errnoValue);

// File flags through the native interface (chflags / FS_IOC_SETFLAGS). Only the immutable and
// append-only bits are portable.
void setFileFlags(const std::string& path, std::uint32_t flags);

// Extended attributes of the object itself, never of a link's target.
std::vector<std::string> listExtendedAttributes(const std::string& path);
std::string readExtendedAttribute(const std::string& path, const std::string& name);
void writeExtendedAttribute(const std::string& path, const std::string& name, const std::string& value);
std::vector<std::string> listExtendedAttributes(int descriptor, const std::string& pathForErrors);
std::string readExtendedAttribute(int descriptor, const std::string& name, const std::string& pathForErrors);
void writeExtendedAttribute(int descriptor, const std::string& name, const std::string& value,
                            const std::string& pathForErrors);

// Copies the access control list that goes beyond the mode bits (macOS: the extended ACL;
// Linux: the POSIX access ACL, and the default ACL of a directory). An object with none gives
// the destination none.
void copyAccessControlList(const std::string& from, const std::string& to);
// Whether the object carries an ACL beyond its mode bits.
bool hasExtendedAccessControlList(const std::string& path);

void makeFifo(const std::string& path, std::uint32_t mode);
void changeOwnerNoFollow(const std::string& path, std::uint32_t uid, std::uint32_t gid);
void changeMode(const std::string& path, std::uint32_t mode);
// Access and modification times of the object itself (not a link's target).
void setTimesNoFollow(const std::string& path, FileTime accessed, FileTime modified);

// Flushes one open file to the medium (F_FULLFSYNC on macOS, fsync on Linux).
void flushDescriptor(int descriptor, const std::string& pathForErrors);
// Flushes the whole file system holding the descriptor (syncfs on Linux; F_FULLFSYNC on macOS,
// whose drives honour it per file system).
void flushFileSystem(int descriptor, const std::string& pathForErrors);
// Drops the cached pages of a flushed file so the next read comes from the medium.
void dropCachedPages(int descriptor, const std::string& pathForErrors);

}  // namespace corvane::platform
