#include <fcntl.h>
#include <libmount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "platform/posix_error.h"
#include "platform/unique_fd.h"
#include "platform/volume.h"
#include "support/uuid.h"

namespace corvane::platform {
namespace {

// Removes the probe directory and what it holds, whatever the probe got to.
class ProbeDirectory {
 public:
  explicit ProbeDirectory(std::string path) : path_(std::move(path)) {
    if (mkdir(path_.c_str(), 0700) != 0) throwErrno(path_);
  }
  ~ProbeDirectory() {
    unlink(child("link").c_str());
    unlink(child("file").c_str());
    rmdir(path_.c_str());
  }
  std::string child(const char* name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

bool probeLink(const ProbeDirectory& probe) {
  const std::string link = probe.child("link");
  if (symlink("file", link.c_str()) != 0) return false;
  struct stat st {};
  if (lstat(link.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return false;
  char target[16];
  ssize_t length = readlink(link.c_str(), target, sizeof target);
  return length == 4 && std::string(target, 4) == "file";
}

bool probePermissions(const ProbeDirectory& probe) {
  const std::string file = probe.child("file");
  UniqueFd fd(open(file.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600));
  if (!fd) return false;
  fd.reset();
  // Two distinct modes, neither a FAT default, both read back exactly.
  for (mode_t mode : {0640, 0604}) {
    struct stat st {};
    if (chmod(file.c_str(), mode) != 0 || lstat(file.c_str(), &st) != 0) return false;
    if ((st.st_mode & 07777) != mode) return false;
  }
  return true;
}

}  // namespace

VolumeCapabilities volumeCapabilities(const std::string& directory) {
  ProbeDirectory probe(directory + "/.corvane-capabilities-" + makeUuidString());
  VolumeCapabilities capabilities;
  capabilities.symbolicLinks = probeLink(probe);
  capabilities.accessPermissions = probePermissions(probe);
  return capabilities;
}

std::int64_t availableCapacity(const std::string& path) {
  struct statvfs st {};
  if (statvfs(path.c_str(), &st) != 0) throwErrno(path);
  return static_cast<std::int64_t>(st.f_bavail) * static_cast<std::int64_t>(st.f_frsize);
}

std::vector<std::string> mountPoints() {
  std::vector<std::string> points;
  libmnt_table* table = mnt_new_table_from_file("/proc/self/mountinfo");
  if (!table) throw PosixError(errno ? errno : EIO, "/proc/self/mountinfo");
  libmnt_iter* iterator = mnt_new_iter(MNT_ITER_FORWARD);
  libmnt_fs* fs = nullptr;
  while (iterator && mnt_table_next_fs(table, iterator, &fs) == 0) {
    if (const char* target = mnt_fs_get_target(fs)) points.emplace_back(target);
  }
  mnt_free_iter(iterator);
  mnt_unref_table(table);
  return points;
}

}  // namespace corvane::platform
