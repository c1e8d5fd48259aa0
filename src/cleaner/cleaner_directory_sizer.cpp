#include "cleaner/cleaner_directory_sizer.h"

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <utility>

#include "cleaner/directory_chain.h"
#include "platform/posix_error.h"
#include "support/diagnostic_log.h"

namespace corvane {
namespace {

class SizingWalk {
 public:
  SizingWalk(const std::stop_token& stop, DirectorySizing& result) : stop_(stop), result_(result) {}

  // False when cancelled.
  bool measure(const std::string& root, const std::vector<std::string>& excludedNames) {
    platform::UniqueFd fd;
    try {
      fd = openDirectory(root, FollowFinalLink::follow);
    } catch (const platform::PosixError& error) {
      if (error.errnoValue() != ENOENT && error.errnoValue() != ENOTDIR) noteUnreadable(root, error.what());
      return true;
    }
    DirectoryChain chain(std::move(fd), root);
    std::vector<Frame> frames;
    if (!pushListing(chain, frames)) return true;
    auto& names = frames.back().names;
    std::erase_if(names, [&](const std::string& name) {
      return std::find(excludedNames.begin(), excludedNames.end(), name) != excludedNames.end();
    });

    while (!frames.empty()) {
      Frame& frame = frames.back();
      if (frame.next == frame.names.size()) {
        frames.pop_back();
        if (!frames.empty()) chain.ascend();
        continue;
      }
      const std::string& name = frame.names[frame.next++];
      if (++result_.entries % CleanerDirectorySizer::kCancellationStride == 0 && stop_.stop_requested()) {
        result_.cancelled = true;
        return false;
      }
      std::optional<platform::FileStatus> status;
      try {
        status = platform::statNoFollow(chain.current(), name);
      } catch (const std::exception& error) {
        if (!frame.reported) noteUnreadable(chain.currentPath(), error.what());
        frame.reported = true;
        continue;
      }
      if (!status) continue;  // removed while we looked
      count(*status);
      if (S_ISDIR(status->mode) && status->device == chain.rootDevice()) {
        try {
          chain.descend(name, *status);
        } catch (const std::exception& error) {
          noteUnreadable(chain.currentPath() + "/" + name, error.what());
          continue;
        }
        if (!pushListing(chain, frames)) chain.ascend();
      }
    }
    return true;
  }

 private:
  struct Frame {
    std::vector<std::string> names;
    std::size_t next = 0;
    bool reported = false;
  };

  bool pushListing(DirectoryChain& chain, std::vector<Frame>& frames) {
    try {
      frames.push_back({chain.listCurrent(), 0, false});
      return true;
    } catch (const std::exception& error) {
      noteUnreadable(chain.currentPath(), error.what());
      return false;
    }
  }

  void count(const platform::FileStatus& status) {
    // A file with several names frees its blocks only once, and du counts it once too.
    if (!S_ISDIR(status.mode) && status.linkCount > 1 && !hardLinked_.emplace(status.device, status.inode).second) {
      return;
    }
    result_.bytes += status.allocatedBytes;
  }

  void noteUnreadable(const std::string& path, const std::string& reason) {
    logInfo("🔍 cleaner: cannot measure inside " + path + ": " + reason);
    result_.unreadable.push_back(path);
  }

  const std::stop_token& stop_;
  DirectorySizing& result_;
  std::set<std::pair<std::int32_t, std::uint64_t>> hardLinked_;
};

}  // namespace

DirectorySizing CleanerDirectorySizer::calculateDirectorySizeSynchronously(
    const std::vector<std::string>& roots, const std::vector<std::string>& excludedNames) const {
  DirectorySizing result;
  SizingWalk walk(stop_, result);
  for (const auto& root : roots) {
    if (!walk.measure(root, excludedNames)) break;
  }
  return result;
}

}  // namespace corvane
