// Measures how much disk space the contents of a cleaner item's folders take: allocated blocks,
// each hard-linked file once, never following a link and never leaving the root's volume, with
// a cancellation check every 1000 entries.
#pragma once

#include <cstdint>
#include <stop_token>
#include <string>
#include <vector>

namespace corvane {

struct DirectorySizing {
  std::int64_t bytes = 0;
  std::uint64_t entries = 0;
  bool cancelled = false;
  // Directories whose contents could not be listed or examined; their own blocks still count.
  std::vector<std::string> unreadable;
};

class CleanerDirectorySizer {
 public:
  static constexpr std::uint64_t kCancellationStride = 1000;

  explicit CleanerDirectorySizer(std::stop_token stop = {}) : stop_(std::move(stop)) {}

  // The total of everything below each root (the roots' own blocks are not counted: emptying
  // keeps them). A root that is a link to a directory is measured inside its target; a root
  // that is missing or not a directory contributes nothing. `excludedNames` are skipped
  // directly inside every root.
  DirectorySizing calculateDirectorySizeSynchronously(const std::vector<std::string>& roots,
                                                      const std::vector<std::string>& excludedNames = {}) const;

 private:
  std::stop_token stop_;
};

}  // namespace corvane
