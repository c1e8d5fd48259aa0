// Which sockets are bound to the file: the kernel's socket diagnostics (NETLINK_SOCK_DIAG with
// UNIX_DIAG_VFS) give the file identity of every bound socket, and accepted connections carry
// their listener's. Where the diagnostics are not available, /proc/net/unix gives the path each
// socket was bound by, which matches only when the server bound this very path. Then the
// /proc/<pid>/fd links ("socket:[inode]") name the processes. Only the socket file itself is
// looked at; everything else is a /proc file or a link's text.
#include <dirent.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <unordered_set>

#include "platform/linux/proc_mounts.h"
#include "platform/posix_error.h"
#include "platform/socket_holders.h"
#include "platform/unique_fd.h"

namespace corvane::platform {
namespace {

struct SocketFile {
  dev_t device = 0;      // as stat reports it
  dev_t fileSystem = 0;  // the mount's, as the kernel's socket tables report it
  ino_t inode = 0;
};

using SocketInodes = std::unordered_set<std::uint64_t>;

// The sockets bound to the file, from the kernel's socket diagnostics; absent when they cannot
// be asked (no unix_diag in this kernel).
std::optional<SocketInodes> boundByIdentity(const SocketFile& file) {
  UniqueFd netlink(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (!netlink) return std::nullopt;
  struct {
    nlmsghdr header;
    unix_diag_req request;
  } message{};
  message.header.nlmsg_len = sizeof message;
  message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  message.request.sdiag_family = AF_UNIX;
  message.request.udiag_states = ~0u;
  message.request.udiag_show = UDIAG_SHOW_VFS;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (sendto(netlink.get(), &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) < 0) {
    return std::nullopt;
  }
  SocketInodes bound;
  alignas(nlmsghdr) std::array<char, 32768> buffer;
  for (;;) {
    const ssize_t received = recv(netlink.get(), buffer.data(), buffer.size(), 0);
    if (received < 0 && errno == EINTR) continue;
    if (received <= 0) return std::nullopt;
    const auto total = static_cast<std::size_t>(received);
    for (std::size_t offset = 0; offset + NLMSG_HDRLEN <= total;) {
      nlmsghdr header;
      std::memcpy(&header, buffer.data() + offset, sizeof header);
      if (header.nlmsg_len < NLMSG_HDRLEN || offset + header.nlmsg_len > total) return std::nullopt;
      if (header.nlmsg_type == NLMSG_DONE) return bound;
      if (header.nlmsg_type == NLMSG_ERROR) return std::nullopt;
      if (header.nlmsg_type == SOCK_DIAG_BY_FAMILY && header.nlmsg_len >= NLMSG_LENGTH(sizeof(unix_diag_msg))) {
        unix_diag_msg socketMessage;
        std::memcpy(&socketMessage, buffer.data() + offset + NLMSG_HDRLEN, sizeof socketMessage);
        const std::size_t attributesEnd = offset + header.nlmsg_len;
        for (std::size_t at = offset + NLMSG_LENGTH(sizeof(unix_diag_msg)); at + sizeof(rtattr) <= attributesEnd;) {
          rtattr attribute;
          std::memcpy(&attribute, buffer.data() + at, sizeof attribute);
          if (attribute.rta_len < sizeof attribute || at + attribute.rta_len > attributesEnd) break;
          if (attribute.rta_type == UNIX_DIAG_VFS && attribute.rta_len >= RTA_LENGTH(sizeof(unix_diag_vfs))) {
            unix_diag_vfs vfs;
            std::memcpy(&vfs, buffer.data() + at + RTA_LENGTH(0), sizeof vfs);
            // The kernel's own encoding of a device number: the major above bit 20.
            const dev_t device = makedev(vfs.udiag_vfs_dev >> 20, vfs.udiag_vfs_dev & 0xfffff);
            if (vfs.udiag_vfs_ino == file.inode && (device == file.fileSystem || device == file.device))
              bound.insert(socketMessage.udiag_ino);
          }
          at += RTA_ALIGN(attribute.rta_len);
        }
      }
      offset += NLMSG_ALIGN(header.nlmsg_len);
    }
  }
}

// The sockets bound by this very path, as written or with its links resolved.
SocketInodes boundByPath(const std::string& socketPath) {
  std::unordered_set<std::string> names{socketPath};
  if (char* resolved = realpath(socketPath.c_str(), nullptr)) {
    names.insert(resolved);
    std::free(resolved);
  }
  SocketInodes bound;
  std::string table;
  if (!readProcFile(AT_FDCWD, "/proc/net/unix", table)) return bound;
  std::string_view rest(table);
  rest.remove_prefix(std::min(rest.size(), rest.find('\n') + 1));  // the header
  while (!rest.empty()) {
    const auto newline = rest.find('\n');
    std::string_view line = rest.substr(0, newline);
    rest = newline == std::string_view::npos ? std::string_view{} : rest.substr(newline + 1);
    // Num RefCount Protocol Flags Type St Inode Path
    std::string_view inode;
    for (int field = 0; field < 7; ++field) {
      while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
      const auto end = std::min(line.find(' '), line.size());
      inode = line.substr(0, end);
      line.remove_prefix(end);
    }
    if (line.empty()) continue;
    line.remove_prefix(1);
    std::uint64_t number = 0;
    if (std::from_chars(inode.data(), inode.data() + inode.size(), number).ec == std::errc() &&
        names.contains(std::string(line))) {
      bound.insert(number);
    }
  }
  return bound;
}

std::optional<std::uint64_t> socketInodeOf(std::string_view link) {
  constexpr std::string_view kPrefix = "socket:[";
  if (!link.starts_with(kPrefix) || !link.ends_with(']')) return std::nullopt;
  std::uint64_t inode = 0;
  const char* begin = link.data() + kPrefix.size();
  const char* end = link.data() + link.size() - 1;
  if (std::from_chars(begin, end, inode).ptr != end) return std::nullopt;
  return inode;
}

bool holdsAny(int processDirectory, const SocketInodes& sockets) {
  UniqueFd fds(openat(processDirectory, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fds) return false;
  DIR* listing = fdopendir(fds.release());
  if (!listing) return false;
  bool found = false;
  char target[64];
  while (dirent* entry = readdir(listing)) {
    const ssize_t length = readlinkat(dirfd(listing), entry->d_name, target, sizeof target);
    if (length <= 0) continue;
    const auto inode = socketInodeOf(std::string_view(target, static_cast<std::size_t>(length)));
    if (inode && sockets.contains(*inode)) {
      found = true;
      break;
    }
  }
  closedir(listing);
  return found;
}

}  // namespace

bool hasNativeSocketHolders() { return true; }

std::vector<SocketHolder> unixSocketHolders(const std::string& socketPath) {
  SocketFile file;
  {
    UniqueFd socketFile(open(socketPath.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!socketFile) {
      if (errno == ENOENT) return {};
      throwErrno(socketPath);
    }
    struct stat status {};
    if (fstat(socketFile.get(), &status) != 0) throwErrno(socketPath);
    if (!S_ISSOCK(status.st_mode)) return {};
    file = {status.st_dev, status.st_dev, status.st_ino};
    std::string table;
    MountTable mounts;
    if (const auto mountId = mountIdOf(socketFile.get());
        mountId && readProcFile(AT_FDCWD, "/proc/self/mountinfo", table)) {
      mounts.add(table);
      if (const MountedFileSystem* mount = mounts.find(*mountId)) file.fileSystem = mount->device;
    }
  }
  const auto byIdentity = boundByIdentity(file);
  const SocketInodes sockets = byIdentity ? *byIdentity : boundByPath(socketPath);
  if (sockets.empty()) return {};

  UniqueFd proc(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!proc) throwErrno("/proc");
  DIR* processes = fdopendir(dup(proc.get()));
  if (!processes) throwErrno("/proc");
  std::vector<SocketHolder> holders;
  std::string comm;
  while (dirent* entry = readdir(processes)) {
    pid_t pid = 0;
    const std::string_view name(entry->d_name);
    if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr != name.data() + name.size()) continue;
    UniqueFd directory(openat(proc.get(), entry->d_name, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory || !holdsAny(directory.get(), sockets)) continue;
    if (!readProcFile(directory.get(), "comm", comm)) continue;  // ended meanwhile
    if (!comm.empty() && comm.back() == '\n') comm.pop_back();
    holders.push_back({pid, comm});
  }
  closedir(processes);
  return holders;
}

}  // namespace corvane::platform
