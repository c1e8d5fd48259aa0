// The directories from a cleaning root down to the one being worked on, each opened relative to
// its parent without following links and checked to be the directory that was listed. Only the
// deepest few stay open; an ancestor closed to spare descriptors is reopened by name, from the
// nearest open one, and checked again, so a deep tree never escapes through a swapped-in link.
//
// Error contract: descend() and current() throw PosixError for a failed open, and
// DirectoryChain::Changed when what is found is not what was recorded.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/file_system.h"
#include "platform/unique_fd.h"

namespace corvane {

class DirectoryChain {
 public:
  struct Changed : std::runtime_error {
    explicit Changed(const std::string& path) : std::runtime_error(path), path(path) {}
    std::string path;
  };

  // `root` is an open directory; `rootPath` names it in errors.
  DirectoryChain(platform::UniqueFd root, std::string rootPath);

  // The deepest directory's descriptor, reopened if it had been closed.
  int current();
  const std::string& currentPath() const { return levels_.back().path; }
  std::int32_t rootDevice() const { return levels_.front().device; }
  std::size_t depth() const { return levels_.size() - 1; }

  // Opens `name` inside the current directory as the new deepest one. `listed` is its status as
  // read without following links; the opened directory must have the same identity.
  void descend(const std::string& name, const platform::FileStatus& listed);
  void ascend();

  // Names inside the current directory, without "." and "..".
  std::vector<std::string> listCurrent();

  static constexpr std::size_t kOpenLevels = 48;

 private:
  struct Level {
    std::string name;
    std::string path;
    std::uint64_t inode = 0;
    std::int32_t device = 0;
    platform::UniqueFd fd;
  };
  platform::UniqueFd openChecked(int parent, const Level& level) const;

  std::vector<Level> levels_;
};

// Opens `path` as a directory for cleaning. The last component is not followed when it is a
// link unless `FollowFinalLink::follow` is given; earlier components are resolved as usual.
enum class FollowFinalLink { follow, refuse };
platform::UniqueFd openDirectory(const std::string& path, FollowFinalLink follow);

}  // namespace corvane
