// The native open-file scan: /proc/<pid>/{stat,cwd,root,exe,maps,fd} read directly, written in
// lsof's field format so that both listers feed the same parser. Where lsof reports a detail in
// a particular way (an unreadable link, a mapped file whose path leads to another device, a
// deleted mapping) this scan reports it the same way, so that the two agree on every file that
// can belong to an item. Network sockets and anonymous inodes are described more tersely than
// lsof does: they never have an identity inside an item.
//
// A scan for one item's files looks into no other file system. A descriptor is followed to its file
// only when /proc/<pid>/fdinfo places it on a mount of the item's file system (or on an overlay,
// which reports the identity of the file below it) and, on a plain local file system, gives an
// inode number that is one of the wanted files'; a mapping's path is looked up only when the map
// places the mapping there. Every identity is read with AT_STATX_DONT_SYNC: the attributes the
// kernel holds, without asking a network or FUSE server for fresh ones. Only wanted files are
// named. Processes are scanned by a thread per core in chunks; the output keeps the process order.
// What costs the kernel most is the number of requests, so what one request told is reused where it
// provably holds: what fdinfo said of a path, and a sibling process's descriptor numbers and paths.
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/kcmp.h>
#include <linux/types.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <exception>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/linux/proc_mounts.h"
#include "platform/open_file_fields.h"
#include "platform/open_file_lister.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"

namespace corvane::platform {

OpenFileLister defaultOpenFileLister() { return OpenFileLister::native; }

const char* lsofExecutablePath() { return "/usr/bin/lsof"; }

std::int64_t deviceNumber(unsigned major, unsigned minor) { return static_cast<std::int64_t>(makedev(major, minor)); }

namespace {

// The map query of /proc/<pid>/maps (Linux 6.11): one mapping per call, as numbers, without
// formatting every mapping's line and path. Older kernels answer ENOTTY and the text is read.
struct MapQuery {
  __u64 size;
  __u64 queryFlags;
  __u64 queryAddress;
  __u64 start;
  __u64 end;
  __u64 flags;
  __u64 pageSize;
  __u64 offset;
  __u64 inode;
  __u32 deviceMajor;
  __u32 deviceMinor;
  __u32 nameSize;
  __u32 buildIdSize;
  __u64 nameAddress;
  __u64 buildIdAddress;
};
constexpr unsigned long kMapQueryRequest = _IOWR('f', 17, MapQuery);
constexpr __u64 kQueryCoveringOrNext = 0x10;
constexpr __u64 kQueryFileBacked = 0x20;

constexpr std::string_view kDeletedSuffix = " (deleted)";
// Local file systems on which every file reports its superblock's device and the inode number the
// kernel keeps for it, so that a descriptor's fdinfo alone tells its identity.
const std::unordered_set<std::string_view> kPlainInodeTypes = {"ext2", "ext3",  "ext4", "xfs",     "tmpfs",
                                                               "f2fs", "exfat", "jfs",  "hfsplus", "ntfs3"};
constexpr std::size_t kProcessesPerChunk = 16;
constexpr unsigned kMaximumWorkers = 4;
// Below this many processes a second thread costs more than it saves.
constexpr std::size_t kProcessesPerWorker = 48;

struct Identity {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const Identity&) const = default;
};

struct IdentityHash {
  std::size_t operator()(const Identity& identity) const noexcept {
    return std::hash<std::uint64_t>{}(identity.inode * 0x9E3779B97F4A7C15ULL ^ identity.device);
  }
};

struct PathStatus {
  dev_t device = 0;
  ino_t inode = 0;
  mode_t mode = 0;
};

struct UnixSocket {
  std::string path;
  unsigned type = 0;
};

std::string_view typeName(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return "REG";
    case S_IFDIR:
      return "DIR";
    case S_IFCHR:
      return "CHR";
    case S_IFBLK:
      return "BLK";
    case S_IFIFO:
      return "FIFO";
    case S_IFLNK:
      return "LINK";
    case S_IFSOCK:
      return "sock";
    default:
      return "unknown";
  }
}

std::string_view unixTypeName(unsigned type) {
  switch (type) {
    case 1:
      return "STREAM";
    case 2:
      return "DGRAM";
    case 3:
      return "RAW";
    case 4:
      return "RDM";
    case 5:
      return "SEQPACKET";
    default:
      return "UNKNOWN";
  }
}

// The access letter lsof derives from the descriptor link's own mode bits.
char accessOf(mode_t linkMode) {
  switch (linkMode & (S_IRUSR | S_IWUSR)) {
    case S_IRUSR:
      return 'r';
    case S_IWUSR:
      return 'w';
    default:
      return 'u';
  }
}

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }
bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::optional<std::string> readLinkAt(int directory, const char* name, int& error) {
  std::array<char, PATH_MAX + 1> target;
  ssize_t length = readlinkat(directory, name, target.data(), target.size());
  if (length < 0) {
    error = errno;
    return std::nullopt;
  }
  return std::string(target.data(), static_cast<std::size_t>(length));
}

// The identity of what a /proc link leads to, as the kernel holds it: a network or FUSE server is
// not asked for fresh attributes, so one that stopped answering is not waited for. Identity and
// type never change while a file is open.
std::optional<Identity> identityAt(int directory, const char* name, mode_t* mode = nullptr,
                                   std::optional<std::uint64_t>* mountId = nullptr) {
  struct statx status {};
  const unsigned mask = STATX_TYPE | STATX_INO | (mountId ? STATX_MNT_ID : 0);
  if (statx(directory, name, AT_STATX_DONT_SYNC, mask, &status) != 0) return std::nullopt;
  if (mode) *mode = status.stx_mode;
  if (mountId && (status.stx_mask & STATX_MNT_ID)) *mountId = status.stx_mnt_id;
  return Identity{makedev(status.stx_dev_major, status.stx_dev_minor), static_cast<ino_t>(status.stx_ino)};
}

// Numeric names in a /proc directory (process ids, descriptors, task ids), ascending. Read with
// getdents64 directly: one listing of /proc per process and descriptor table is the scan's
// commonest call after stat.
std::vector<unsigned long> numericEntries(int directory) {
  std::vector<unsigned long> numbers;
  alignas(8) char buffer[16384];
  for (;;) {
    const long count = syscall(SYS_getdents64, directory, buffer, sizeof buffer);
    if (count <= 0) break;
    // A /proc directory fills the buffer until it is full or the listing ends: room left over
    // means the end, and the call that would say so is saved.
    const bool complete = count < static_cast<long>(sizeof buffer) - 1024;
    for (long offset = 0; offset < count;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + offset);
      offset += entry->d_reclen;
      const char* name = entry->d_name;
      unsigned long value = 0;
      auto [end, error] = std::from_chars(name, name + std::strlen(name), value);
      if (error == std::errc() && *end == '\0') numbers.push_back(value);
    }
    if (complete) break;
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

// What the workers share: the machine's UNIX socket table and the status of mapped paths, both
// read once per scan.
class SharedTables {
 public:
  SharedTables(int proc, const OpenFileFilter& filter) : proc_(proc), filter_(filter) {}

  int proc() const { return proc_; }
  bool filtering() const { return static_cast<bool>(filter_); }
  bool wanted(dev_t device, ino_t inode) const {
    return !filter_ || filter_(static_cast<std::int64_t>(device), static_cast<std::uint64_t>(inode));
  }

  // Narrows the scan to the file systems of these devices, told apart by the mount table.
  // `mounts` is this process's own table; `item` the item's path with every link resolved.
  // `exactDevices` are the devices stat reported for the wanted files themselves.
  void limitTo(const std::vector<std::int64_t>& devices, const std::vector<std::int64_t>& exactDevices,
               MountTable mounts, std::string item) {
    limited_ = true;
    item_ = std::move(item);
    for (std::int64_t device : devices) fileSystems_.insert(static_cast<std::int32_t>(device));
    for (std::int64_t device : exactDevices) exactDevices_.insert(static_cast<std::int32_t>(device));
    mounts_ = std::move(mounts);
    int error = 0;
    if (auto space = readLinkAt(proc_, "self/ns/mnt", error)) readNamespaces_.insert(*space);
  }

  // A path the kernel printed for a descriptor that names a file inside the item. Such a file is
  // looked at without asking its mount first: it is where the scan expects the item's files.
  bool insideItem(std::string_view path) const {
    return !item_.empty() && path.starts_with(item_) && (path.size() == item_.size() || path[item_.size()] == '/');
  }

  // Compared in the 32 bits a manifest keeps of a device number: a clash only widens the scan.
  bool onWantedFileSystem(dev_t device) const {
    return !limited_ || fileSystems_.contains(static_cast<std::int32_t>(device));
  }

  // What a descriptor's mount tells about it: whether it may be one of the wanted files, because
  // the mount is of a wanted file system or an overlay (it reports the identity of the file below
  // it), and, where the mount's device is exactly what stat reports for every file on it, that
  // device. A mount no table names is looked at too: in doubt the scan looks rather than passes over.
  struct MountVerdict {
    bool mayHoldWantedFile = true;
    std::optional<dev_t> exactDevice;
  };

  MountVerdict mountVerdict(int processDirectory, std::uint64_t mountId) {
    if (!limited_) return {};
    std::lock_guard lock(mountMutex_);
    const MountedFileSystem* mount = mounts_.find(mountId);
    if (!mount && !unnamedMounts_.contains(mountId)) {
      // A mount of another mount namespace (a container's): that namespace's own table names it.
      int error = 0;
      auto space = readLinkAt(processDirectory, "ns/mnt", error);
      std::string table;
      if (space && readNamespaces_.insert(*space).second && readProcFile(processDirectory, "mountinfo", table)) {
        mounts_.add(table);
        unnamedMounts_.clear();
        mount = mounts_.find(mountId);
      }
      // The kernel's own mounts (pipes, sockets, memfd) are in no table; asked once.
      if (!mount) unnamedMounts_.insert(mountId);
    }
    if (!mount || mount->type == "overlay") return {};
    if (!onWantedFileSystem(mount->device)) return {false, std::nullopt};
    // The wanted files' own devices (not the item's mount's: a btrfs subvolume's files report a
    // device of their own) on a file system whose inode numbers are the ones stat gives.
    if (exactDevices_.contains(static_cast<std::int32_t>(mount->device)) && kPlainInodeTypes.contains(mount->type)) {
      return {true, mount->device};
    }
    return {};
  }

  std::optional<bool> knownPlace(const std::string& key) {
    std::lock_guard lock(placeMutex_);
    if (auto found = places_.find(key); found != places_.end()) return found->second;
    return std::nullopt;
  }
  void rememberPlace(std::string key, bool mayBeWanted) {
    std::lock_guard lock(placeMutex_);
    places_.emplace(std::move(key), mayBeWanted);
  }

  std::optional<PathStatus> pathStatus(const std::string& path) {
    {
      std::lock_guard lock(pathMutex_);
      if (auto found = pathStatus_.find(path); found != pathStatus_.end()) return found->second;
    }
    std::optional<PathStatus> status;
    struct statx st {};
    if (statx(AT_FDCWD, path.c_str(), AT_STATX_DONT_SYNC, STATX_TYPE | STATX_INO, &st) == 0) {
      status = PathStatus{makedev(st.stx_dev_major, st.stx_dev_minor), static_cast<ino_t>(st.stx_ino), st.stx_mode};
    }
    std::lock_guard lock(pathMutex_);
    pathStatus_.emplace(path, status);
    return status;
  }

  // The status of the path a mapping was made through, remembered by the mapping's identity:
  // the same file is reached by the same path in every process that maps it.
  template <typename NameOf>
  std::optional<PathStatus> mappedStatus(const Identity& identity, const NameOf& nameOf) {
    {
      std::lock_guard lock(pathMutex_);
      if (auto found = mappedStatus_.find(identity); found != mappedStatus_.end()) return found->second;
    }
    std::optional<PathStatus> status;
    if (auto name = nameOf(); name && !endsWith(*name, kDeletedSuffix)) status = pathStatus(*name);
    std::lock_guard lock(pathMutex_);
    mappedStatus_.emplace(identity, status);
    return status;
  }

  std::atomic<bool> mapQueryWorks{true};
  std::atomic<bool> kcmpWorks{true};

  const UnixSocket* unixSocket(ino_t inode) {
    std::call_once(unixOnce_, [this] { loadUnixSockets(); });
    auto found = unixSockets_.find(inode);
    return found == unixSockets_.end() ? nullptr : &found->second;
  }

 private:
  void loadUnixSockets() {
    std::string table;
    if (!readProcFile(proc_, "net/unix", table)) return;
    std::string_view rest(table);
    bool header = true;
    while (!rest.empty()) {
      auto newline = rest.find('\n');
      std::string_view line = rest.substr(0, newline);
      rest = newline == std::string_view::npos ? std::string_view{} : rest.substr(newline + 1);
      if (header) {
        header = false;
        continue;
      }
      // Num RefCount Protocol Flags Type St Inode [Path]
      std::size_t position = 0;
      std::array<std::string_view, 7> tokens;
      bool complete = true;
      for (auto& token : tokens) {
        while (position < line.size() && line[position] == ' ') ++position;
        const std::size_t start = position;
        while (position < line.size() && line[position] != ' ') ++position;
        token = line.substr(start, position - start);
        if (token.empty()) complete = false;
      }
      if (!complete) continue;
      unsigned type = 0;
      ino_t inode = 0;
      std::from_chars(tokens[4].data(), tokens[4].data() + tokens[4].size(), type, 16);
      if (std::from_chars(tokens[6].data(), tokens[6].data() + tokens[6].size(), inode).ec != std::errc()) continue;
      if (position < line.size()) ++position;
      unixSockets_.emplace(inode, UnixSocket{std::string(line.substr(position)), type});
    }
  }

  int proc_;
  const OpenFileFilter& filter_;
  bool limited_ = false;
  std::string item_;
  std::unordered_set<std::int32_t> fileSystems_;
  std::unordered_set<std::int32_t> exactDevices_;
  std::mutex mountMutex_;
  MountTable mounts_;
  std::unordered_set<std::string> readNamespaces_;
  std::unordered_set<std::uint64_t> unnamedMounts_;
  std::mutex placeMutex_;
  std::unordered_map<std::string, bool> places_;
  std::mutex pathMutex_;
  std::unordered_map<std::string, std::optional<PathStatus>> pathStatus_;
  std::unordered_map<Identity, std::optional<PathStatus>, IdentityHash> mappedStatus_;
  std::once_flag unixOnce_;
  std::unordered_map<ino_t, UnixSocket> unixSockets_;
};

// One worker's scanner: reads one process at a time and appends its records to an output.
class ProcessScan {
 public:
  explicit ProcessScan(SharedTables& shared) : shared_(shared) {}

  void scan(pid_t pid, std::string& output) {
    output_ = &output;
    pid_ = pid;
    headerWritten_ = false;
    mountNamespace_.reset();
    UniqueFd directory(openat(shared_.proc(), std::to_string(pid).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return;  // ended meanwhile
    directory_ = directory.get();
    if (!shared_.filtering()) {
      // Zombies have released everything; lsof leaves them out too.
      if (!readCommand() || state_ == 'Z' || state_ == 'X') return;
      writeHeader();
    }
    const LinkStatus program = linkStatus("exe");
    // Kernel threads run no program: they have no memory of their own and no descriptors, and their
    // folders are the machine's root, never an item's.
    const bool kernelThread = !program.identity && program.error == ENOENT;
    if (kernelThread && shared_.filtering()) return;
    auto cwd = linkEntry("cwd", "cwd", linkStatus("cwd"));
    const LinkStatus rootStatus = linkStatus("root");
    rootMount_ = rootStatus.mountId;
    auto root = linkEntry("root", "rtd", rootStatus);
    auto executable = linkEntry("exe", "txt", program);
    if (kernelThread) return;
    mappedFiles(executable);
    descriptors();
    threadDirectories(cwd, root);
  }

 private:
  void field(char id, std::string_view value) {
    *output_ += id;
    *output_ += value;
    *output_ += '\0';
  }

  bool readCommand() {
    if (!readProcFile(directory_, "stat", buffer_)) return false;
    const auto open = buffer_.find('(');
    const auto close = buffer_.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open || close + 2 >= buffer_.size()) {
      return false;
    }
    state_ = buffer_[close + 2];
    command_ = buffer_.substr(open + 1, close - open - 1);
    return true;
  }

  void writeHeader() {
    if (headerWritten_) return;
    headerWritten_ = true;
    if (shared_.filtering() && !readCommand()) command_.clear();
    fmt::format_to(std::back_inserter(*output_), "p{}{}", pid_, '\0');
    field('c', escapeListerText(command_));
    *output_ += '\n';
  }

  void file(std::string_view descriptor, char access, std::string_view type, std::optional<dev_t> device,
            std::optional<ino_t> inode, std::string_view name) {
    writeHeader();
    field('f', descriptor);
    *output_ += 'a';
    *output_ += access;
    *output_ += '\0';
    field('t', type);
    if (device) fmt::format_to(std::back_inserter(*output_), "D0x{:x}{}", *device, '\0');
    if (inode) fmt::format_to(std::back_inserter(*output_), "i{}{}", *inode, '\0');
    field('n', escapeListerText(name));
    *output_ += '\n';
  }

  // A record that names no file: only written when everything is listed.
  void unnamedFile(std::string_view descriptor, char access, std::string_view name) {
    if (!shared_.filtering()) file(descriptor, access, "unknown", std::nullopt, std::nullopt, name);
  }

  // cwd, rtd and txt: the link's text as the name, the identity of what it leads to.
  struct LinkStatus {
    std::optional<Identity> identity;
    mode_t mode = 0;
    int error = 0;
    std::optional<std::uint64_t> mountId;
  };

  LinkStatus linkStatus(const char* linkName) {
    LinkStatus status;
    status.identity = identityAt(directory_, linkName, &status.mode, &status.mountId);
    if (!status.identity) status.error = errno;
    return status;
  }

  std::optional<Identity> linkEntry(const char* linkName, std::string_view descriptor, const LinkStatus& status) {
    const mode_t mode = status.mode;
    const auto& identity = status.identity;
    const int statError = status.error;
    if (shared_.filtering() && (!identity || !shared_.wanted(identity->device, identity->inode))) return identity;
    int error = 0;
    auto text = readLinkAt(directory_, linkName, error);
    if (!text) {
      // A kernel thread has no executable: lsof names the link without an error.
      unnamedFile(descriptor, ' ',
                  error == ENOENT ? fmt::format("/proc/{}/{}", pid_, linkName)
                                  : fmt::format("/proc/{}/{} (readlink: {})", pid_, linkName, std::strerror(error)));
      return identity;
    }
    if (!identity) {
      unnamedFile(descriptor, ' ', fmt::format("{} (stat: {})", *text, std::strerror(statError)));
      return identity;
    }
    file(descriptor, ' ', typeName(mode), identity->device, identity->inode, *text);
    return identity;
  }

  // Every mapped file once, the executable excluded (it is the txt entry). The identity comes
  // from the map itself; when the path now leads elsewhere the name says so, as lsof's does.
  void mappedFiles(const std::optional<Identity>& executable) {
    seenMappings_.clear();
    if (shared_.mapQueryWorks && queryMappedFiles(executable)) return;
    readMappedFiles(executable);
  }

  // One mapping as both ways of reading the maps give it: its identity and a way to get the
  // path it was mapped through (the text has it at hand; the query fetches it on demand).
  template <typename NameOf>
  void mapping(const Identity& identity, const std::optional<Identity>& executable, const NameOf& nameOf) {
    if (executable && *executable == identity) return;
    if (!seenMappings_.insert(identity).second) return;
    const bool wanted = shared_.wanted(identity.device, identity.inode);
    // The map names the file system a mapping lies on; only the wanted ones are looked into.
    const bool mayLookUpPath = shared_.onWantedFileSystem(identity.device);
    if (!wanted) {
      if (!mayLookUpPath) return;
      // A reader of the output also finds the file under the device of the path it was mapped
      // through; only that can make an unwanted mapping interesting.
      const auto status = shared_.mappedStatus(identity, nameOf);
      if (!status || status->device == identity.device || !shared_.wanted(status->device, identity.inode)) return;
    }
    const auto name = nameOf();
    if (!name) return;
    std::string_view path = *name;
    if (endsWith(path, kDeletedSuffix)) {
      path.remove_suffix(kDeletedSuffix.size());
      if (wanted) file("DEL", ' ', "REG", identity.device, identity.inode, path);
      return;
    }
    std::string shown = *name;
    std::string_view type = "REG";
    if (const auto status = mayLookUpPath ? shared_.pathStatus(*name) : std::nullopt) {
      type = typeName(status->mode);
      if (status->device != identity.device) {
        shown += fmt::format(" (path dev={},{})", ::major(status->device), ::minor(status->device));
      } else if (status->inode != identity.inode) {
        shown += fmt::format(" (path inode={})", status->inode);
      }
    }
    file("mem", ' ', type, identity.device, identity.inode, shown);
  }

  // False when this kernel has no map query (nothing was written then).
  bool queryMappedFiles(const std::optional<Identity>& executable) {
    UniqueFd maps(openat(directory_, "maps", O_RDONLY | O_CLOEXEC));
    if (!maps) return true;
    __u64 address = 0;
    for (;;) {
      MapQuery query{};
      query.size = sizeof query;
      query.queryFlags = kQueryCoveringOrNext | kQueryFileBacked;
      query.queryAddress = address;
      if (ioctl(maps.get(), kMapQueryRequest, &query) != 0) {
        if (errno == ENOTTY || errno == EINVAL) {
          if (address != 0) return true;
          shared_.mapQueryWorks = false;
          return false;
        }
        return true;  // ENOENT: no further mapping; ESRCH: the process ended
      }
      address = query.end;
      if (query.inode == 0) continue;
      const Identity identity{makedev(query.deviceMajor, query.deviceMinor), static_cast<ino_t>(query.inode)};
      const __u64 start = query.start;
      mapping(identity, executable, [&]() -> std::optional<std::string> {
        MapQuery named{};
        named.size = sizeof named;
        named.queryFlags = kQueryFileBacked;
        named.queryAddress = start;
        named.nameSize = static_cast<__u32>(name_.size());
        named.nameAddress = reinterpret_cast<__u64>(name_.data());
        if (ioctl(maps.get(), kMapQueryRequest, &named) != 0 || named.nameSize == 0) return std::nullopt;
        return std::string(name_.data(), named.nameSize - 1);
      });
    }
  }

  void readMappedFiles(const std::optional<Identity>& executable) {
    if (!readProcFile(directory_, "maps", maps_)) return;
    std::string_view rest(maps_);
    while (!rest.empty()) {
      auto newline = rest.find('\n');
      std::string_view line = rest.substr(0, newline);
      rest = newline == std::string_view::npos ? std::string_view{} : rest.substr(newline + 1);
      // address perms offset major:minor inode [path]
      std::size_t position = 0;
      auto nextToken = [&]() -> std::string_view {
        while (position < line.size() && line[position] == ' ') ++position;
        const std::size_t start = position;
        while (position < line.size() && line[position] != ' ') ++position;
        return line.substr(start, position - start);
      };
      nextToken();
      nextToken();
      nextToken();
      const std::string_view device = nextToken();
      const std::string_view inodeText = nextToken();
      ino_t inode = 0;
      if (std::from_chars(inodeText.data(), inodeText.data() + inodeText.size(), inode).ec != std::errc() ||
          inode == 0) {
        continue;
      }
      const auto colon = device.find(':');
      unsigned major = 0, minor = 0;
      if (colon == std::string_view::npos ||
          std::from_chars(device.data(), device.data() + colon, major, 16).ec != std::errc() ||
          std::from_chars(device.data() + colon + 1, device.data() + device.size(), minor, 16).ec != std::errc()) {
        continue;
      }
      while (position < line.size() && line[position] == ' ') ++position;
      const std::string_view path = line.substr(position);
      mapping(Identity{makedev(major, minor), inode}, executable,
              [path]() -> std::optional<std::string> { return std::string(path); });
    }
  }

  void descriptors() {
    if (shared_.filtering() && knownDescriptors()) return;
    UniqueFd fds(openat(directory_, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fds) {
      if (errno != ENOENT)
        unnamedFile("NOFD", ' ', fmt::format("/proc/{}/fd (opendir: {})", pid_, std::strerror(errno)));
      return;
    }
    if (shared_.filtering()) {
      wantedDescriptors(fds.get());
      return;
    }
    for (unsigned long number : numericEntries(fds.get())) {
      const std::string descriptor = std::to_string(number);
      mode_t mode = 0;
      const auto identity = identityAt(fds.get(), descriptor.c_str(), &mode);
      const int statError = errno;
      int error = 0;
      auto text = readLinkAt(fds.get(), descriptor.c_str(), error);
      if (!text) {
        if (error == ENOENT) continue;  // closed meanwhile
        unnamedFile(descriptor, ' ',
                    fmt::format("/proc/{}/fd/{} (readlink: {})", pid_, descriptor, std::strerror(error)));
        continue;
      }
      struct stat link {};
      const char access =
          fstatat(fds.get(), descriptor.c_str(), &link, AT_SYMLINK_NOFOLLOW) == 0 ? accessOf(link.st_mode) : ' ';
      if (startsWith(*text, "socket:[")) {
        ino_t inode = 0;
        std::from_chars(text->data() + 8, text->data() + text->size(), inode);
        if (const UnixSocket* socket = shared_.unixSocket(inode)) {
          std::string name = socket->path.empty() ? "" : socket->path + " ";
          name += "type=";
          name += unixTypeName(socket->type);
          file(descriptor, access, "unix", std::nullopt, inode, name);
          continue;
        }
      }
      if (!identity) {
        if (statError == ENOENT) continue;
        unnamedFile(descriptor, access, fmt::format("{} (stat: {})", *text, std::strerror(statError)));
        continue;
      }
      if (startsWith(*text, "pipe:[")) {
        file(descriptor, access, "FIFO", identity->device, identity->inode, "pipe");
      } else if (startsWith(*text, "anon_inode:")) {
        file(descriptor, access, "a_inode", identity->device, identity->inode, std::string_view(*text).substr(11));
      } else {
        file(descriptor, access, typeName(mode), identity->device, identity->inode, *text);
      }
    }
  }

  void wantedDescriptors(int fds) {
    descriptorNumbers_ = numericEntries(fds);
    descriptorTexts_.clear();
    for (unsigned long number : descriptorNumbers_) {
      int error = 0;
      // Closed meanwhile, or unreadable (left empty): named only when everything is listed.
      descriptorTexts_.push_back(readLinkAt(fds, std::to_string(number).c_str(), error).value_or(std::string()));
    }
    describeDescriptors(fds, "");
  }

  // Processes started by one parent hold the same descriptor numbers, often the very same open
  // files, and the kernel (from 6.2 on) gives the number of open descriptors as the size of the fd
  // directory. When that number is the previous process's, its numbers are tried first, which
  // saves listing the directory, and a descriptor that kcmp shows to be the same open file as the
  // previous process's has the same path. True when every descriptor was found that way; otherwise
  // nothing was looked at and the listing follows.
  bool knownDescriptors() {
    struct stat table {};
    if (descriptorNumbers_.empty() || fstatat(directory_, "fd", &table, 0) != 0 ||
        static_cast<std::size_t>(table.st_size) != descriptorNumbers_.size()) {
      return false;
    }
    std::vector<std::string> texts;
    texts.reserve(descriptorNumbers_.size());
    bool compare = shared_.kcmpWorks.load(std::memory_order_relaxed);
    for (std::size_t index = 0; index < descriptorNumbers_.size(); ++index) {
      const unsigned long number = descriptorNumbers_[index];
      if (compare && !descriptorTexts_[index].empty()) {
        const long order = syscall(SYS_kcmp, pid_, descriptorsOf_, KCMP_FILE, number, number);
        if (order == 0) {
          texts.push_back(descriptorTexts_[index]);
          continue;
        }
        if (order < 0 && (errno == ENOSYS || errno == EPERM)) shared_.kcmpWorks = false;
        // A process that shares not even its first descriptor is no child of the same parent.
        if (order < 0 || index == 0) compare = false;
      }
      int error = 0;
      auto text = readLinkAt(directory_, fmt::format("fd/{}", number).c_str(), error);
      if (!text) return false;
      texts.push_back(std::move(*text));
    }
    descriptorTexts_ = std::move(texts);
    describeDescriptors(directory_, "fd/");
    return true;
  }

  // The descriptors just read (numbers and paths), whose links are `prefix` + number below
  // `directory`; they become the ones the next process is compared with.
  void describeDescriptors(int directory, std::string_view prefix) {
    descriptorsOf_ = pid_;
    UniqueFd fdinfo;
    for (std::size_t index = 0; index < descriptorNumbers_.size(); ++index) {
      if (descriptorTexts_[index].empty()) continue;
      const std::string descriptor = std::to_string(descriptorNumbers_[index]);
      wantedDescriptorWithText(directory, std::string(prefix) + descriptor, descriptor, fdinfo,
                               descriptorTexts_[index]);
    }
  }

  // The rest once its link text is known; `link` names the descriptor's link below `directory`.
  void wantedDescriptorWithText(int directory, const std::string& link, const std::string& descriptor, UniqueFd& fdinfo,
                                const std::string& text) {
    // Sockets, pipes and anonymous inodes belong to the kernel's own file systems, never to an item
    // (lsof names UNIX sockets by their socket inode and no device).
    if (startsWith(text, "socket:[") || startsWith(text, "pipe:[") || startsWith(text, "anon_inode:")) return;
    if (!shared_.insideItem(text) && !mayBeWanted(fdinfo, descriptor, text)) return;
    mode_t mode = 0;
    const auto identity = identityAt(directory, link.c_str(), &mode);
    if (!identity || S_ISSOCK(mode) || !shared_.wanted(identity->device, identity->inode)) return;
    struct stat linkStatus {};
    const char access =
        fstatat(directory, link.c_str(), &linkStatus, AT_SYMLINK_NOFOLLOW) == 0 ? accessOf(linkStatus.st_mode) : ' ';
    file(descriptor, access, typeName(mode), identity->device, identity->inode, text);
  }

  // Whether a descriptor whose path lies outside the item may still be one of its files (a hard
  // link, a bind mount), from its fdinfo: its mount and inode number. What fdinfo said is kept by
  // the path and the mount namespace the path is written in, so that the /dev/null, terminals and
  // logs nearly every process holds are read once per scan. One path names one file there, except
  // a deleted file's (never kept), a file opened before another mount covered its folder and a
  // file on a mount detached since; a miss needs such a path to equal the one through which an
  // item's file is open from outside the item (a hard link elsewhere). A mount belongs to one
  // namespace, so the mount of the process's root tells its namespace without another request.
  bool mayBeWanted(UniqueFd& fdinfo, const std::string& descriptor, const std::string& text) {
    if (!mountNamespace_) {
      int error = 0;
      mountNamespace_ = rootMount_ ? fmt::format("root mount {}", *rootMount_)
                                   : readLinkAt(directory_, "ns/mnt", error).value_or(std::string());
    }
    std::string key = *mountNamespace_;
    key += '\0';
    key += text;
    const bool keep = !mountNamespace_->empty() && !endsWith(text, kDeletedSuffix);
    if (const auto known = keep ? shared_.knownPlace(key) : std::nullopt) return *known;
    if (!fdinfo) fdinfo.reset(openat(directory_, "fdinfo", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    errno = 0;
    const auto place = fdinfo ? descriptorPlaceAt(fdinfo.get(), descriptor.c_str()) : std::nullopt;
    if (!place) return errno != ENOENT;  // closed meanwhile, or unreadable: looked at
    const auto verdict = shared_.mountVerdict(directory_, place->mountId);
    // Most descriptors on the item's own file system are other files of it: told apart without a
    // look at the file.
    const bool mayBe = verdict.mayHoldWantedFile &&
                       !(verdict.exactDevice && place->inode && !shared_.wanted(*verdict.exactDevice, *place->inode));
    if (keep) shared_.rememberPlace(std::move(key), mayBe);
    return mayBe;
  }

  // lsof lists every thread of a process separately; threads share descriptors and maps, but a
  // thread may have its own working or root directory, which must not be missed.
  void threadDirectories(const std::optional<Identity>& cwd, const std::optional<Identity>& root) {
    struct stat tasks {};
    // A task directory links one entry per thread besides "." and "..".
    if (fstatat(directory_, "task", &tasks, 0) != 0 || tasks.st_nlink <= 3) return;
    UniqueFd taskDirectory(openat(directory_, "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!taskDirectory) return;
    std::unordered_set<Identity, IdentityHash> reported;
    for (unsigned long task : numericEntries(taskDirectory.get())) {
      if (static_cast<pid_t>(task) == pid_) continue;
      for (const auto& [linkName, descriptor, main] :
           {std::tuple{"cwd", "cwd", &cwd}, std::tuple{"root", "rtd", &root}}) {
        const std::string path = fmt::format("{}/{}", task, linkName);
        mode_t mode = 0;
        const auto identity = identityAt(taskDirectory.get(), path.c_str(), &mode);
        if (!identity || *main == identity || !shared_.wanted(identity->device, identity->inode)) continue;
        if (!reported.insert(*identity).second) continue;
        int error = 0;
        if (auto text = readLinkAt(taskDirectory.get(), path.c_str(), error)) {
          file(descriptor, ' ', typeName(mode), identity->device, identity->inode, *text);
        }
      }
    }
  }

  SharedTables& shared_;
  std::string* output_ = nullptr;
  pid_t pid_ = 0;
  int directory_ = -1;
  bool headerWritten_ = false;
  std::optional<std::string> mountNamespace_;
  std::optional<std::uint64_t> rootMount_;
  // The descriptors of the previous process whose table was read, ascending, with their paths.
  pid_t descriptorsOf_ = 0;
  std::vector<unsigned long> descriptorNumbers_;
  std::vector<std::string> descriptorTexts_;
  char state_ = 0;
  std::string command_;
  std::string buffer_;
  std::string maps_;
  std::array<char, PATH_MAX + 1> name_{};
  std::unordered_set<Identity, IdentityHash> seenMappings_;
};

// Threads started together tend to be queued on the core that started them, and the scheduler
// spreads them only after a few milliseconds, about as long as the whole scan takes. Each extra
// worker therefore starts on an allowed core other than the caller's, and is free to move again
// after its first chunk.
class CoreSpread {
 public:
  CoreSpread() {
    CPU_ZERO(&allowed_);
    if (sched_getaffinity(0, sizeof allowed_, &allowed_) != 0) return;
    const int here = sched_getcpu();
    for (int core = 0; core < CPU_SETSIZE; ++core) {
      if (CPU_ISSET(core, &allowed_) && core != here) others_.push_back(core);
    }
  }

  void start(std::size_t worker) const {
    if (worker == 0 || others_.empty()) return;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(others_[(worker - 1) % others_.size()], &one);
    sched_setaffinity(0, sizeof one, &one);
  }

  void release(std::size_t worker) const {
    if (worker == 0 || others_.empty()) return;
    sched_setaffinity(0, sizeof allowed_, &allowed_);
  }

 private:
  cpu_set_t allowed_;
  std::vector<int> others_;
};

std::string scanProcesses(int proc, SharedTables& shared) {
  const std::vector<unsigned long> pids = numericEntries(proc);
  const std::size_t chunks = (pids.size() + kProcessesPerChunk - 1) / kProcessesPerChunk;
  std::vector<std::string> outputs(chunks);
  std::atomic<std::size_t> nextChunk{0};
  std::exception_ptr failure;
  std::mutex failureMutex;
  const CoreSpread spread;
  auto work = [&](std::size_t worker) {
    try {
      ProcessScan scan(shared);
      spread.start(worker);
      for (std::size_t chunk = nextChunk++, done = 0; chunk < chunks; chunk = nextChunk++, ++done) {
        if (done == 1) spread.release(worker);
        const std::size_t end = std::min(pids.size(), (chunk + 1) * kProcessesPerChunk);
        for (std::size_t index = chunk * kProcessesPerChunk; index < end; ++index) {
          scan.scan(static_cast<pid_t>(pids[index]), outputs[chunk]);
        }
      }
    } catch (...) {
      std::lock_guard lock(failureMutex);
      if (!failure) failure = std::current_exception();
      nextChunk = chunks;
    }
  };
  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  const std::size_t workers = std::clamp<std::size_t>(std::min<std::size_t>(cores, kMaximumWorkers), 1,
                                                      std::max<std::size_t>(1, pids.size() / kProcessesPerWorker));
  std::vector<std::thread> threads;
  for (std::size_t worker = 1; worker < workers; ++worker) threads.emplace_back(work, worker);
  work(0);
  for (auto& thread : threads) thread.join();
  if (failure) std::rethrow_exception(failure);

  std::size_t total = 0;
  for (const auto& output : outputs) total += output.size();
  std::string result;
  result.reserve(total);
  for (const auto& output : outputs) result += output;
  return result;
}

UniqueFd openProc() {
  UniqueFd proc(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!proc) throwErrno("/proc");
  return proc;
}

}  // namespace

std::string listOpenFilesNatively() {
  const UniqueFd proc = openProc();
  const OpenFileFilter everything;
  SharedTables shared(proc.get(), everything);
  return scanProcesses(proc.get(), shared);
}

std::string listOpenFilesNatively(const OpenFileQuery& query) {
  const UniqueFd proc = openProc();
  SharedTables shared(proc.get(), query.wanted);
  // The item's own file system, found from its mount as every descriptor's is: a btrfs subvolume's
  // files report a device of their own, which no mount carries.
  std::optional<std::uint64_t> mountId;
  std::string resolved;
  {
    // Closed before the scan, which would otherwise list it.
    UniqueFd item(open(query.within.c_str(), O_PATH | O_CLOEXEC));
    if (!item) throwErrno(query.within);
    mountId = mountIdOf(item.get());
    // The path as the kernel prints it for the item's files: the descriptor's own link.
    int error = 0;
    if (auto text = readLinkAt(AT_FDCWD, fmt::format("/proc/self/fd/{}", item.get()).c_str(), error)) resolved = *text;
  }
  MountTable mounts;
  std::string table;
  if (!readProcFile(proc.get(), "self/mountinfo", table)) throwErrno("/proc/self/mountinfo");
  mounts.add(table);
  const MountedFileSystem* home = mountId ? mounts.find(*mountId) : nullptr;
  if (!home) throw PosixError(ENOENT, query.within + " (no mount holds it)");
  std::vector<std::int64_t> devices = query.devices;
  devices.push_back(static_cast<std::int64_t>(home->device));
  shared.limitTo(devices, query.devices, std::move(mounts), std::move(resolved));
  return scanProcesses(proc.get(), shared);
}

}  // namespace corvane::platform
