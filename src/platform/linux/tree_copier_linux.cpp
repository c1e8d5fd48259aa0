// The recursive copier on Linux: a depth-first walk over open directory descriptors on both
// sides, so nothing on either side is ever reached through a link, and a destination that
// already exists is never written into.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/read_ahead.h"
#include "platform/tree_copier.h"
#include "platform/unique_fd.h"

namespace corvane::platform {
namespace {

constexpr std::size_t kChunkSize = 1 << 20;
// Write-back of a large file's copy starts every this many bytes instead of waiting for the
// final flush, which then finds most of the data already on its way to the medium.
constexpr off_t kWriteBackWindow = off_t{8} << 20;

// Starts writing [start, end) of `out` to its medium now and waits for the window before it,
// so the pages a large copy keeps dirty stay bounded. Only a head start: durability still comes
// from the flush of the whole volume after the copy, so a failure here changes nothing.
class EarlyWriteBack {
 public:
  explicit EarlyWriteBack(int out) : out_(out) {}

  void written(off_t position) {
    if (position - started_ < kWriteBackWindow) return;
    sync_file_range(out_, started_, position - started_, SYNC_FILE_RANGE_WRITE);
    if (started_ > waited_) {
      sync_file_range(out_, waited_, started_ - waited_,
                      SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
      waited_ = started_;
    }
    started_ = position;
  }

 private:
  int out_;
  off_t started_ = 0;
  off_t waited_ = 0;
};

std::string childPath(const std::string& parent, const std::string& name) {
  return parent == "/" ? "/" + name : parent + "/" + name;
}

// Stops the walk after the callback said quit; carries no errno of its own.
struct CopyCancelled {};

struct ListedEntry {
  ino_t inode;
  unsigned char type;
  std::string name;
};

// The regular files of one directory opened ahead of their copy, in listing order, so their
// first reads are on their way while the files before them are written. Directories above keep
// what they opened while a subdirectory is copied, so all of them share one count of open files.
class DirectoryReadAhead {
 public:
  DirectoryReadAhead(int directory, const std::vector<ListedEntry>& entries, std::size_t& openInTree)
      : directory_(directory), entries_(entries), openInTree_(openInTree) {}
  ~DirectoryReadAhead() { openInTree_ -= queue_.size(); }
  DirectoryReadAhead(const DirectoryReadAhead&) = delete;
  DirectoryReadAhead& operator=(const DirectoryReadAhead&) = delete;

  std::optional<OpenedAhead> take(std::size_t index) {
    while (next_ < entries_.size() && next_ <= index + kReadAheadFiles && openInTree_ < kReadAheadFiles &&
           queue_.hasRoom()) {
      const ListedEntry& entry = entries_[next_];
      // Only what the listing calls a regular file is opened: opening anything else can have
      // effects of its own.
      if (entry.type == DT_REG) {
        if (auto opened = openAhead(directory_, entry.name, kReadAheadFirstBytes, CachedPages::keep)) {
          queue_.push(next_, std::move(*opened));
          ++openInTree_;
        }
      }
      ++next_;
    }
    const std::size_t before = queue_.size();
    auto opened = queue_.take(index);
    openInTree_ -= before - queue_.size();
    return opened;
  }

 private:
  int directory_;
  const std::vector<ListedEntry>& entries_;
  std::size_t& openInTree_;
  std::size_t next_ = 0;
  ReadAheadQueue<std::size_t> queue_;
};

class TreeCopy {
 public:
  explicit TreeCopy(const CopyCallback& callback) : callback_(callback), buffer_(new char[kChunkSize]) {}

  void run(const std::string& source, const std::string& destination) {
    if (statNoFollow(AT_FDCWD, destination)) fail(CopyWhat::recurseFile, EEXIST, source, destination, destination);
    try {
      copyEntry(AT_FDCWD, source, source, AT_FDCWD, destination, destination);
    } catch (const CopyCancelled&) {
      throwErrno(ECANCELED, destination);
    }
  }

 private:
  CopyAnswer notify(CopyWhat what, CopyStage stage, const std::string& source, const std::string& destination,
                    std::int64_t copied = 0, int error = 0) {
    if (!callback_) return CopyAnswer::proceed;
    return callback_(CopyEvent{what, stage, source, destination, copied, error});
  }

  // Tells the callback and throws; a callback that answers skip lets the walk go on instead.
  bool failOrSkip(CopyWhat what, int error, const std::string& source, const std::string& destination,
                  const std::string& concerned) {
    const CopyAnswer answer = notify(what, CopyStage::error, source, destination, 0, error);
    if (answer == CopyAnswer::skip) return true;
    if (answer == CopyAnswer::quit) throw CopyCancelled{};
    throwErrno(error, concerned);
  }

  [[noreturn]] void fail(CopyWhat what, int error, const std::string& source, const std::string& destination,
                         const std::string& concerned) {
    notify(what, CopyStage::error, source, destination, 0, error);
    throwErrno(error, concerned);
  }

  void proceedOrStop(CopyAnswer answer) {
    if (answer == CopyAnswer::quit) throw CopyCancelled{};
  }

  void copyEntry(int sourceDirectory, const std::string& sourceName, const std::string& sourcePath,
                 int destinationDirectory, const std::string& destinationName, const std::string& destinationPath,
                 std::optional<OpenedAhead> openedAhead = std::nullopt) {
    struct stat st {};
    if (fstatat(sourceDirectory, sourceName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      if (failOrSkip(CopyWhat::recurseFile, errno, sourcePath, destinationPath, sourcePath)) return;
    }
    if (S_ISDIR(st.st_mode)) {
      copyDirectory(sourceDirectory, sourceName, sourcePath, destinationDirectory, destinationName, destinationPath,
                    st);
      return;
    }
    const CopyAnswer answer = notify(CopyWhat::recurseFile, CopyStage::start, sourcePath, destinationPath);
    proceedOrStop(answer);
    if (answer == CopyAnswer::skip) return;
    int error = 0;
    switch (st.st_mode & S_IFMT) {
      case S_IFREG:
        error = copyRegular(sourceDirectory, sourceName, sourcePath, destinationDirectory, destinationName,
                            destinationPath, st, std::move(openedAhead));
        break;
      case S_IFLNK:
        error = copyLink(sourceDirectory, sourceName, destinationDirectory, destinationName, destinationPath, st);
        break;
      case S_IFSOCK:
        return;  // a socket is an endpoint of a running program, not data
      default:
        error = copyNode(destinationDirectory, destinationName, destinationPath, sourcePath, st);
        break;
    }
    if (error != 0) {
      if (failOrSkip(CopyWhat::recurseFile, error, sourcePath, destinationPath, destinationPath)) return;
    }
    proceedOrStop(notify(CopyWhat::recurseFile, CopyStage::finish, sourcePath, destinationPath));
  }

  void copyDirectory(int sourceDirectory, const std::string& sourceName, const std::string& sourcePath,
                     int destinationDirectory, const std::string& destinationName, const std::string& destinationPath,
                     const struct stat& st) {
    const CopyAnswer answer = notify(CopyWhat::recurseDirectory, CopyStage::start, sourcePath, destinationPath);
    proceedOrStop(answer);
    if (answer == CopyAnswer::skip) return;
    UniqueFd source(openat(sourceDirectory, sourceName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat opened {};
    if (!source || fstat(source.get(), &opened) != 0) {
      if (failOrSkip(CopyWhat::recurseDirectory, errno, sourcePath, destinationPath, sourcePath)) return;
    }
    if (opened.st_ino != st.st_ino || opened.st_dev != st.st_dev) {
      if (failOrSkip(CopyWhat::recurseDirectory, ESTALE, sourcePath, destinationPath, sourcePath)) return;
    }
    // Owner-only while it fills, so nobody else can put anything into it meanwhile.
    if (mkdirat(destinationDirectory, destinationName.c_str(), 0700) != 0) {
      if (failOrSkip(CopyWhat::recurseDirectory, errno, sourcePath, destinationPath, destinationPath)) return;
    }
    UniqueFd destination(
        openat(destinationDirectory, destinationName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!destination) fail(CopyWhat::recurseDirectory, errno, sourcePath, destinationPath, destinationPath);

    const std::vector<ListedEntry> entries = listEntries(source.get(), sourcePath, destinationPath);
    DirectoryReadAhead readAhead(source.get(), entries, openAhead_);
    for (std::size_t index = 0; index < entries.size(); ++index) {
      const std::string& name = entries[index].name;
      copyEntry(source.get(), name, childPath(sourcePath, name), destination.get(), name,
                childPath(destinationPath, name), readAhead.take(index));
    }
    if (int error = copyAttributes(source.get(), destination.get(), sourcePath); error != 0) {
      fail(CopyWhat::recurseDirectoryCleanup, error, sourcePath, destinationPath, destinationPath);
    }
    if (int error = applyMetadata(destination.get(), st); error != 0) {
      fail(CopyWhat::recurseDirectoryCleanup, error, sourcePath, destinationPath, destinationPath);
    }
    proceedOrStop(notify(CopyWhat::recurseDirectoryCleanup, CopyStage::finish, sourcePath, destinationPath));
  }

  std::vector<ListedEntry> listEntries(int directory, const std::string& sourcePath,
                                       const std::string& destinationPath) {
    int listing = dup(directory);
    DIR* stream = listing >= 0 ? fdopendir(listing) : nullptr;
    if (stream == nullptr) {
      const int error = errno;
      if (listing >= 0) close(listing);
      fail(CopyWhat::recurseDirectory, error, sourcePath, destinationPath, sourcePath);
    }
    std::vector<ListedEntry> entries;
    errno = 0;
    while (dirent* item = readdir(stream)) {
      const char* name = item->d_name;
      if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
      entries.push_back(ListedEntry{item->d_ino, item->d_type, name});
      errno = 0;
    }
    const int error = errno;
    closedir(stream);
    if (error != 0) fail(CopyWhat::recurseDirectory, error, sourcePath, destinationPath, sourcePath);
    // Inode order follows where the file system put the entries: on a cold cache the reads then
    // sweep the medium instead of jumping by name hash.
    std::sort(entries.begin(), entries.end(), [](const ListedEntry& a, const ListedEntry& b) {
      return a.inode < b.inode || (a.inode == b.inode && a.name < b.name);
    });
    return entries;
  }

  int copyRegular(int sourceDirectory, const std::string& sourceName, const std::string& sourcePath,
                  int destinationDirectory, const std::string& destinationName, const std::string& destinationPath,
                  const struct stat& st, std::optional<OpenedAhead> openedAhead) {
    // A file opened ahead is used only while it is still the object this entry names.
    UniqueFd in;
    if (openedAhead && openedAhead->status.inode == st.st_ino &&
        openedAhead->status.device == static_cast<std::int32_t>(st.st_dev)) {
      in = std::move(openedAhead->descriptor);
    } else {
      in.reset(openat(sourceDirectory, sourceName.c_str(), O_RDONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
      if (!in) return errno;
      struct stat opened {};
      if (fstat(in.get(), &opened) != 0) return errno;
      if (opened.st_ino != st.st_ino || opened.st_dev != st.st_dev) return ESTALE;
    }
    UniqueFd out(openat(destinationDirectory, destinationName.c_str(),
                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!out) return errno;
    // The file exists from here on: whoever keeps track of what the copy made hears of it
    // before the first write can fail.
    proceedOrStop(notify(CopyWhat::copyData, CopyStage::progress, sourcePath, destinationPath, 0));
    if (st.st_size > kReadAheadFirstBytes) posix_fadvise(in.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    if (int error = copyData(in.get(), out.get(), st.st_size, sourcePath, destinationPath); error != 0) return error;
    if (ftruncate(out.get(), st.st_size) != 0) return errno;
    proceedOrStop(notify(CopyWhat::copyData, CopyStage::finish, sourcePath, destinationPath, st.st_size));
    if (int error = copyAttributes(in.get(), out.get(), sourcePath); error != 0) return error;
    if (int error = applyMetadata(out.get(), st); error != 0) return error;
    // A failed close can be the first report of data that never reached the volume.
    if (out.close() != 0) return errno;
    return 0;
  }

  // Copies the data regions only, so holes stay holes; the final size is set by the caller.
  int copyData(int in, int out, off_t size, const std::string& sourcePath, const std::string& destinationPath) {
    EarlyWriteBack writeBack(out);
    off_t offset = 0;
    while (offset < size) {
      off_t dataStart = lseek(in, offset, SEEK_DATA);
      if (dataStart < 0) {
        if (errno == ENXIO) break;  // only a hole remains
        if (errno != EINVAL && errno != EOPNOTSUPP) return errno;
        dataStart = offset;  // no hole support: everything is data
      }
      off_t dataEnd = lseek(in, dataStart, SEEK_HOLE);
      if (dataEnd < 0) dataEnd = size;
      if (dataEnd > size) dataEnd = size;
      if (int error = copyRange(in, out, dataStart, dataEnd, sourcePath, destinationPath, writeBack); error != 0)
        return error;
      offset = dataEnd;
    }
    return 0;
  }

  int copyRange(int in, int out, off_t start, off_t end, const std::string& sourcePath,
                const std::string& destinationPath, EarlyWriteBack& writeBack) {
    off_t position = start;
    while (position < end) {
      const std::size_t want = static_cast<std::size_t>(std::min<off_t>(end - position, kChunkSize));
      ssize_t copied = -1;
      if (kernelCopy_) {
        loff_t inOffset = position, outOffset = position;
        copied = copy_file_range(in, &inOffset, out, &outOffset, want, 0);
        if (copied < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
          kernelCopy_ = false;  // this pair of volumes cannot copy in the kernel; stop asking
        } else if (copied < 0) {
          return errno;
        }
      }
      if (!kernelCopy_) {
        copied = pread(in, buffer_.get(), want, position);
        if (copied < 0) {
          if (errno == EINTR) continue;
          return errno;
        }
        for (ssize_t written = 0; written < copied;) {
          ssize_t n =
              pwrite(out, buffer_.get() + written, static_cast<std::size_t>(copied - written), position + written);
          if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
          }
          written += n;
        }
      }
      if (copied == 0) return ESTALE;  // the file shrank while it was copied
      position += copied;
      writeBack.written(position);
      proceedOrStop(notify(CopyWhat::copyData, CopyStage::progress, sourcePath, destinationPath, position));
    }
    return 0;
  }

  int copyLink(int sourceDirectory, const std::string& sourceName, int destinationDirectory,
               const std::string& destinationName, const std::string& destinationPath, const struct stat& st) {
    char target[4097];
    ssize_t length = readlinkat(sourceDirectory, sourceName.c_str(), target, sizeof target - 1);
    if (length < 0) return errno;
    target[length] = '\0';
    if (symlinkat(target, destinationDirectory, destinationName.c_str()) != 0) return errno;
    if (fchownat(destinationDirectory, destinationName.c_str(), st.st_uid, st.st_gid, AT_SYMLINK_NOFOLLOW) != 0 &&
        !(errno == EPERM && geteuid() != 0)) {
      return errno;
    }
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    if (utimensat(destinationDirectory, destinationName.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    (void)destinationPath;
    return 0;
  }

  // FIFOs and device nodes: the object itself, then owner, mode, attributes and times.
  int copyNode(int destinationDirectory, const std::string& destinationName, const std::string& destinationPath,
               const std::string& sourcePath, const struct stat& st) {
    if (mknodat(destinationDirectory, destinationName.c_str(), (st.st_mode & S_IFMT) | 0600, st.st_rdev) != 0)
      return errno;
    try {
      for (const auto& name : listExtendedAttributes(sourcePath)) {
        writeExtendedAttribute(destinationPath, name, readExtendedAttribute(sourcePath, name));
      }
    } catch (const PosixError& error) {
      return error.errnoValue();
    }
    if (fchownat(destinationDirectory, destinationName.c_str(), st.st_uid, st.st_gid, AT_SYMLINK_NOFOLLOW) != 0 &&
        !(errno == EPERM && geteuid() != 0)) {
      return errno;
    }
    if (fchmodat(destinationDirectory, destinationName.c_str(), st.st_mode & 07777, 0) != 0) return errno;
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    if (utimensat(destinationDirectory, destinationName.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    return 0;
  }

  // Every extended attribute, POSIX ACLs included (they are attributes on Linux).
  static int copyAttributes(int in, int out, const std::string& sourcePath) {
    try {
      for (const auto& name : listExtendedAttributes(in, sourcePath)) {
        writeExtendedAttribute(out, name, readExtendedAttribute(in, name, sourcePath), sourcePath);
      }
    } catch (const PosixError& error) {
      return error.errnoValue();
    }
    return 0;
  }

  // Owner before mode (a change of owner clears set-id bits), times last.
  static int applyMetadata(int fd, const struct stat& st) {
    if (fchown(fd, st.st_uid, st.st_gid) != 0 && !(errno == EPERM && geteuid() != 0)) return errno;
    if (fchmod(fd, st.st_mode & 07777) != 0) return errno;
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    if (futimens(fd, times) != 0) return errno;
    return 0;
  }

  const CopyCallback& callback_;
  std::unique_ptr<char[]> buffer_;
  bool kernelCopy_ = true;
  std::size_t openAhead_ = 0;  // files opened ahead, across the directories being copied
};

}  // namespace

void copyTree(const std::string& source, const std::string& destination, const CopyCallback& callback) {
  TreeCopy(callback).run(source, destination);
}

}  // namespace corvane::platform
