#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "platform/linux/proc_mounts.h"
#include "platform/unique_fd.h"

namespace corvane::platform {
namespace {

template <typename Number>
bool parse(std::string_view text, Number& value) {
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

}  // namespace

bool readProcFile(int directory, const char* name, std::string& buffer) {
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

void MountTable::add(std::string_view mountinfo) {
  // id parent major:minor root mount-point options [optional fields] - type source super-options;
  // root and mount point escape their spaces, so " - " only ever separates.
  while (!mountinfo.empty()) {
    const auto newline = mountinfo.find('\n');
    const std::string_view line = mountinfo.substr(0, newline);
    mountinfo = newline == std::string_view::npos ? std::string_view{} : mountinfo.substr(newline + 1);
    const auto firstSpace = line.find(' ');
    const auto secondSpace = line.find(' ', firstSpace + 1);
    const auto thirdSpace = line.find(' ', secondSpace + 1);
    const auto separator = line.find(" - ");
    if (firstSpace == std::string_view::npos || secondSpace == std::string_view::npos ||
        thirdSpace == std::string_view::npos || separator == std::string_view::npos) {
      continue;
    }
    const std::string_view deviceText = line.substr(secondSpace + 1, thirdSpace - secondSpace - 1);
    const auto colon = deviceText.find(':');
    std::uint64_t id = 0;
    unsigned major = 0, minor = 0;
    if (colon == std::string_view::npos || !parse(line.substr(0, firstSpace), id) ||
        !parse(deviceText.substr(0, colon), major) || !parse(deviceText.substr(colon + 1), minor)) {
      continue;
    }
    std::string_view type = line.substr(separator + 3);
    type = type.substr(0, type.find(' '));
    mounts_[id] = MountedFileSystem{makedev(major, minor), std::string(type)};
  }
}

const MountedFileSystem* MountTable::find(std::uint64_t mountId) const {
  const auto found = mounts_.find(mountId);
  return found == mounts_.end() ? nullptr : &found->second;
}

std::optional<DescriptorPlace> descriptorPlaceIn(std::string_view fdinfo) {
  constexpr std::string_view kMount = "mnt_id:";
  constexpr std::string_view kInode = "ino:";
  std::optional<std::uint64_t> mountId;
  std::optional<std::uint64_t> inode;
  auto value = [](std::string_view line, std::string_view key) -> std::optional<std::uint64_t> {
    line.remove_prefix(key.size());
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    std::uint64_t number = 0;
    if (parse(line, number)) return number;
    return std::nullopt;
  };
  for (std::size_t start = 0; start < fdinfo.size();) {
    const auto end = std::min(fdinfo.find('\n', start), fdinfo.size());
    const std::string_view line = fdinfo.substr(start, end - start);
    start = end + 1;
    if (line.starts_with(kMount)) {
      mountId = value(line, kMount);
      if (!mountId) return std::nullopt;
    } else if (line.starts_with(kInode)) {
      inode = value(line, kInode);
    }
  }
  if (!mountId) return std::nullopt;
  return DescriptorPlace{*mountId, inode};
}

std::optional<DescriptorPlace> descriptorPlaceAt(int fdinfoDirectory, const char* name) {
  UniqueFd fd(openat(fdinfoDirectory, name, O_RDONLY | O_CLOEXEC));
  if (!fd) return std::nullopt;
  // "pos", "flags", "mnt_id" and "ino" come first: the start of the text is enough, whatever the
  // file adds after (a line cut short at the end is not one of them).
  char text[256];
  ssize_t count;
  while ((count = ::read(fd.get(), text, sizeof text)) < 0 && errno == EINTR) {
  }
  if (count <= 0) return std::nullopt;
  std::string_view read(text, static_cast<std::size_t>(count));
  if (count == sizeof text) read = read.substr(0, read.rfind('\n') + 1);
  return descriptorPlaceIn(read);
}

std::optional<std::uint64_t> mountIdOf(int fd) {
  UniqueFd fdinfo(open("/proc/self/fdinfo", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fdinfo) return std::nullopt;
  const auto place = descriptorPlaceAt(fdinfo.get(), std::to_string(fd).c_str());
  if (!place) return std::nullopt;
  return place->mountId;
}

}  // namespace corvane::platform
