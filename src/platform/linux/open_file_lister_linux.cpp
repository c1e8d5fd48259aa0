// The native open-file scan: /proc/<pid>/{stat,cwd,root,exe,maps,fd} read directly, written in
// lsof's field format so that both listers feed the same parser. Where lsof reports a detail in
// a particular way (an unreadable link, a mapped file whose path leads to another device, a
// deleted mapping) this scan reports it the same way, so that the two agree on every file that
// can belong to an item. Network sockets and anonymous inodes are described more tersely than
// lsof does: they never have an identity inside an item.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <iterator>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <fmt/format.h>

#include "platform/open_file_fields.h"
#include "platform/open_file_lister.h"
#include "platform/posix_error.h"
#include "platform/unique_fd.h"

namespace corvane::platform {

OpenFileLister defaultOpenFileLister() { return OpenFileLister::native; }

const char* lsofExecutablePath() { return "/usr/bin/lsof"; }

std::int64_t deviceNumber(unsigned major, unsigned minor) { return static_cast<std::int64_t>(makedev(major, minor)); }

namespace {

constexpr std::string_view kDeletedSuffix = " (deleted)";

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
    case S_IFREG: return "REG";
    case S_IFDIR: return "DIR";
    case S_IFCHR: return "CHR";
    case S_IFBLK: return "BLK";
    case S_IFIFO: return "FIFO";
    case S_IFLNK: return "LINK";
    case S_IFSOCK: return "sock";
    default: return "unknown";
  }
}

std::string_view unixTypeName(unsigned type) {
  switch (type) {
    case 1: return "STREAM";
    case 2: return "DGRAM";
    case 3: return "RAW";
    case 4: return "RDM";
    case 5: return "SEQPACKET";
    default: return "UNKNOWN";
  }
}

// The access letter lsof derives from the descriptor link's own mode bits.
char accessOf(mode_t linkMode) {
  switch (linkMode & (S_IRUSR | S_IWUSR)) {
    case S_IRUSR: return 'r';
    case S_IWUSR: return 'w';
    default: return 'u';
  }
}

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }
bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// Reads a whole /proc file into `buffer`; false when it cannot be opened or read.
bool readWholeFile(int directory, const char* name, std::string& buffer) {
  buffer.clear();
  UniqueFd fd(openat(directory, name, O_RDONLY | O_CLOEXEC));
  if (!fd) return false;
  std::size_t used = 0;
  for (;;) {
    if (buffer.size() - used < 4096) buffer.resize(std::max<std::size_t>(buffer.size() * 2, 8192));
    ssize_t count = ::read(fd.get(), buffer.data() + used, buffer.size() - used);
    if (count < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (count == 0) break;
    used += static_cast<std::size_t>(count);
  }
  buffer.resize(used);
  return true;
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

// Numeric names in a directory (process ids, descriptors, task ids), ascending.
std::vector<unsigned long> numericEntries(int directory) {
  std::vector<unsigned long> numbers;
  UniqueFd copy(fcntl(directory, F_DUPFD_CLOEXEC, 0));
  if (!copy) return numbers;
  DIR* listing = fdopendir(copy.get());
  if (!listing) return numbers;
  copy.release();
  while (dirent* entry = readdir(listing)) {
    const char* name = entry->d_name;
    unsigned long value = 0;
    auto [end, error] = std::from_chars(name, name + std::strlen(name), value);
    if (error == std::errc() && *end == '\0') numbers.push_back(value);
  }
  closedir(listing);
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

class ProcessTableScan {
 public:
  explicit ProcessTableScan(UniqueFd proc) : proc_(std::move(proc)) { output_.reserve(1 << 20); }

  std::string run() {
    for (unsigned long pid : numericEntries(proc_.get())) scanProcess(static_cast<pid_t>(pid));
    return std::move(output_);
  }

 private:
  void field(char id, std::string_view value) {
    output_ += id;
    output_ += value;
    output_ += '\0';
  }

  void file(std::string_view descriptor, char access, std::string_view type, std::optional<dev_t> device,
            std::optional<ino_t> inode, std::string_view name) {
    field('f', descriptor);
    output_ += 'a';
    output_ += access;
    output_ += '\0';
    field('t', type);
    if (device) fmt::format_to(std::back_inserter(output_), "D0x{:x}{}", *device, '\0');
    if (inode) fmt::format_to(std::back_inserter(output_), "i{}{}", *inode, '\0');
    field('n', escapeListerText(name));
    output_ += '\n';
  }

  void scanProcess(pid_t pid) {
    const std::string pidName = std::to_string(pid);
    UniqueFd directory(openat(proc_.get(), pidName.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return;  // ended meanwhile
    if (!readWholeFile(directory.get(), "stat", buffer_)) return;
    const auto open = buffer_.find('(');
    const auto close = buffer_.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open || close + 2 >= buffer_.size()) return;
    const char state = buffer_[close + 2];
    // Zombies have released everything; lsof leaves them out too.
    if (state == 'Z' || state == 'X') return;
    const std::string command = buffer_.substr(open + 1, close - open - 1);

    fmt::format_to(std::back_inserter(output_), "p{}{}", pid, '\0');
    field('c', escapeListerText(command));
    output_ += '\n';

    auto cwd = linkEntry(directory.get(), pid, "cwd", "cwd");
    auto root = linkEntry(directory.get(), pid, "root", "rtd");
    auto executable = linkEntry(directory.get(), pid, "exe", "txt");
    mappedFiles(directory.get(), executable);
    descriptors(directory.get(), pid);
    threadDirectories(directory.get(), pid, cwd, root);
  }

  struct LinkResult {
    std::string text;
    std::optional<Identity> identity;
  };

  // cwd, rtd and txt: the link's text as the name, the identity of what it leads to.
  std::optional<LinkResult> linkEntry(int directory, pid_t pid, const char* linkName, std::string_view descriptor) {
    int error = 0;
    auto text = readLinkAt(directory, linkName, error);
    if (!text) {
      // A kernel thread has no executable: lsof names the link without an error.
      const std::string name = error == ENOENT ? fmt::format("/proc/{}/{}", pid, linkName)
                                               : fmt::format("/proc/{}/{} (readlink: {})", pid, linkName, std::strerror(error));
      file(descriptor, ' ', "unknown", std::nullopt, std::nullopt, name);
      return std::nullopt;
    }
    struct stat status {};
    if (fstatat(directory, linkName, &status, 0) != 0) {
      file(descriptor, ' ', "unknown", std::nullopt, std::nullopt, fmt::format("{} (stat: {})", *text, std::strerror(errno)));
      return LinkResult{std::move(*text), std::nullopt};
    }
    file(descriptor, ' ', typeName(status.st_mode), status.st_dev, status.st_ino, *text);
    return LinkResult{std::move(*text), Identity{status.st_dev, status.st_ino}};
  }

  const std::optional<PathStatus>& mappedPathStatus(const std::string& path) {
    auto found = pathStatus_.find(path);
    if (found != pathStatus_.end()) return found->second;
    std::optional<PathStatus> status;
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) status = PathStatus{st.st_dev, st.st_ino, st.st_mode};
    return pathStatus_.emplace(path, status).first->second;
  }

  // Every mapped file once, the executable excluded (it is the txt entry). The identity comes
  // from the map itself; when the path now leads elsewhere the name says so, as lsof's does.
  void mappedFiles(int directory, const std::optional<LinkResult>& executable) {
    if (!readWholeFile(directory, "maps", maps_)) return;
    seenMappings_.clear();
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
      if (std::from_chars(inodeText.data(), inodeText.data() + inodeText.size(), inode).ec != std::errc() || inode == 0) {
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
      std::string_view path = line.substr(position);
      const Identity identity{makedev(major, minor), inode};
      if (executable && executable->identity && *executable->identity == identity) continue;
      if (!seenMappings_.insert(identity).second) continue;
      if (endsWith(path, kDeletedSuffix)) {
        path.remove_suffix(kDeletedSuffix.size());
        file("DEL", ' ', "REG", identity.device, identity.inode, path);
        continue;
      }
      const std::string pathText(path);
      std::string name = pathText;
      std::string_view type = "REG";
      if (const auto& status = mappedPathStatus(pathText)) {
        type = typeName(status->mode);
        if (status->device != identity.device) {
          name += fmt::format(" (path dev={},{})", ::major(status->device), ::minor(status->device));
        } else if (status->inode != identity.inode) {
          name += fmt::format(" (path inode={})", status->inode);
        }
      }
      file("mem", ' ', type, identity.device, identity.inode, name);
    }
  }

  const std::unordered_map<ino_t, UnixSocket>& unixSockets() {
    if (unixSockets_) return *unixSockets_;
    unixSockets_.emplace();
    std::string table;
    if (!readWholeFile(proc_.get(), "net/unix", table)) return *unixSockets_;
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
      unixSockets_->emplace(inode, UnixSocket{std::string(line.substr(position)), type});
    }
    return *unixSockets_;
  }

  void descriptors(int directory, pid_t pid) {
    UniqueFd fds(openat(directory, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fds) {
      if (errno != ENOENT) {
        file("NOFD", ' ', "unknown", std::nullopt, std::nullopt,
             fmt::format("/proc/{}/fd (opendir: {})", pid, std::strerror(errno)));
      }
      return;
    }
    for (unsigned long number : numericEntries(fds.get())) {
      const std::string descriptor = std::to_string(number);
      int error = 0;
      auto text = readLinkAt(fds.get(), descriptor.c_str(), error);
      if (!text) {
        if (error == ENOENT) continue;  // closed meanwhile
        file(descriptor, ' ', "unknown", std::nullopt, std::nullopt,
             fmt::format("/proc/{}/fd/{} (readlink: {})", pid, descriptor, std::strerror(error)));
        continue;
      }
      struct stat link {};
      const char access = fstatat(fds.get(), descriptor.c_str(), &link, AT_SYMLINK_NOFOLLOW) == 0 ? accessOf(link.st_mode) : ' ';
      if (startsWith(*text, "socket:[")) {
        ino_t inode = 0;
        std::from_chars(text->data() + 8, text->data() + text->size(), inode);
        const auto& sockets = unixSockets();
        if (auto found = sockets.find(inode); found != sockets.end()) {
          std::string name = found->second.path.empty() ? "" : found->second.path + " ";
          name += "type=";
          name += unixTypeName(found->second.type);
          file(descriptor, access, "unix", std::nullopt, inode, name);
          continue;
        }
      }
      struct stat status {};
      if (fstatat(fds.get(), descriptor.c_str(), &status, 0) != 0) {
        if (errno == ENOENT) continue;
        file(descriptor, access, "unknown", std::nullopt, std::nullopt, fmt::format("{} (stat: {})", *text, std::strerror(errno)));
        continue;
      }
      if (startsWith(*text, "pipe:[")) {
        file(descriptor, access, "FIFO", status.st_dev, status.st_ino, "pipe");
      } else if (startsWith(*text, "anon_inode:")) {
        file(descriptor, access, "a_inode", status.st_dev, status.st_ino, std::string_view(*text).substr(11));
      } else {
        file(descriptor, access, typeName(status.st_mode), status.st_dev, status.st_ino, *text);
      }
    }
  }

  // lsof lists every thread of a process separately; threads share descriptors and maps, but a
  // thread may have its own working or root directory, which must not be missed.
  void threadDirectories(int directory, pid_t pid, const std::optional<LinkResult>& cwd,
                         const std::optional<LinkResult>& root) {
    struct stat tasks {};
    // A task directory links one entry per thread besides "." and "..".
    if (fstatat(directory, "task", &tasks, 0) != 0 || tasks.st_nlink <= 3) return;
    UniqueFd taskDirectory(openat(directory, "task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!taskDirectory) return;
    std::set<std::string> reported;
    for (unsigned long task : numericEntries(taskDirectory.get())) {
      if (static_cast<pid_t>(task) == pid) continue;
      for (const auto& [linkName, descriptor, main] :
           {std::tuple{"cwd", "cwd", &cwd}, std::tuple{"root", "rtd", &root}}) {
        const std::string path = fmt::format("{}/{}", task, linkName);
        int error = 0;
        auto text = readLinkAt(taskDirectory.get(), path.c_str(), error);
        if (!text || (*main && (*main)->text == *text)) continue;
        if (!reported.insert(std::string(descriptor) + '\0' + *text).second) continue;
        struct stat status {};
        if (fstatat(taskDirectory.get(), path.c_str(), &status, 0) != 0) continue;
        file(descriptor, ' ', typeName(status.st_mode), status.st_dev, status.st_ino, *text);
      }
    }
  }

  UniqueFd proc_;
  std::string output_;
  std::string buffer_;
  std::string maps_;
  std::unordered_set<Identity, IdentityHash> seenMappings_;
  std::unordered_map<std::string, std::optional<PathStatus>> pathStatus_;
  std::optional<std::unordered_map<ino_t, UnixSocket>> unixSockets_;
};

}  // namespace

std::string listOpenFilesNatively() {
  UniqueFd proc(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!proc) throwErrno("/proc");
  return ProcessTableScan(std::move(proc)).run();
}

}  // namespace corvane::platform
