#include <libmount.h>

#include <cerrno>
#include <memory>

#include "platform/linux/mount_table.h"
#include "platform/posix_error.h"

namespace corvane::platform {
namespace {

struct TableDeleter {
  void operator()(libmnt_table* table) const { mnt_unref_table(table); }
};
struct IteratorDeleter {
  void operator()(libmnt_iter* iterator) const { mnt_free_iter(iterator); }
};

// Network file systems libmount does not know as such (FUSE clients of remote storage).
bool isRemoteFuse(const std::string& type) {
  for (const char* remote : {"fuse.sshfs", "fuse.rclone", "fuse.s3fs", "fuse.gcsfuse", "davfs", "fuse.davfs2"})
    if (type == remote) return true;
  return false;
}

MountRow rowOf(libmnt_fs* fs) {
  MountRow row;
  if (const char* target = mnt_fs_get_target(fs)) row.target = target;
  if (const char* source = mnt_fs_get_srcpath(fs)) row.source = source;
  if (const char* type = mnt_fs_get_fstype(fs)) row.fileSystemType = type;
  row.device = mnt_fs_get_devno(fs);
  row.isNetwork = mnt_fs_is_netfs(fs) == 1 || isRemoteFuse(row.fileSystemType);
  return row;
}

}  // namespace

void forEachMount(const std::function<void(const MountRow&)>& visit) {
  std::unique_ptr<libmnt_table, TableDeleter> table(mnt_new_table());
  if (!table) throwErrno(ENOMEM, "/proc/self/mountinfo");
  if (const int failed = mnt_table_parse_file(table.get(), "/proc/self/mountinfo"); failed != 0)
    throwErrno(failed < 0 ? -failed : EIO, "/proc/self/mountinfo");
  std::unique_ptr<libmnt_iter, IteratorDeleter> iterator(mnt_new_iter(MNT_ITER_FORWARD));
  libmnt_fs* fs = nullptr;
  while (mnt_table_next_fs(table.get(), iterator.get(), &fs) == 0) visit(rowOf(fs));
}

std::optional<MountRow> mountHolding(const std::string& path) {
  std::optional<MountRow> deepest;
  forEachMount([&](const MountRow& row) {
    const bool holds = row.target == "/" || path == row.target ||
                       (path.size() > row.target.size() && path.compare(0, row.target.size(), row.target) == 0 &&
                        path[row.target.size()] == '/');
    // A later mount at the same place covers an earlier one.
    if (holds && (!deepest || row.target.size() >= deepest->target.size())) deepest = row;
  });
  return deepest;
}

}  // namespace corvane::platform
