// What a ghost directory (a leftover folder in a disk's mount place) holds, measured without
// following links, so the user can see it before it is removed; and the identity that lets the
// removal refuse a directory that was replaced after the user confirmed.
//
// Error contract: measureGhostDirectory() throws PosixError when the directory itself cannot be
// opened (a link, not a directory, gone); what cannot be read further down is passed over.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace corvane {

struct GhostDirectoryContents {
  // A tree larger than this, or deeper than kDepthLimit, is not walked to its end: the count
  // then says "at least" (countIsIncomplete) rather than keep the user waiting.
  static constexpr std::uint64_t kEntryCountLimit = 100000;
  static constexpr int kDepthLimit = 256;
  static constexpr std::size_t kFirstNamesShown = 5;

  std::uint64_t entryCount = 0;         // everything inside, at every depth
  std::int64_t totalBytes = 0;          // sizes of the regular files inside
  std::vector<std::string> firstNames;  // the first names directly inside, in listing order
  bool countIsIncomplete = false;
  dev_t device = 0;
  ino_t inode = 0;
};

// Counts within the directory's own file system: a volume mounted somewhere inside counts as
// one entry and is not entered.
GhostDirectoryContents measureGhostDirectory(const std::string& path);

// True when `path`, read again without following a link, is still a directory with the
// confirmed device and inode.
bool isSameGhostDirectory(const std::string& path, const GhostDirectoryContents& confirmed);

}  // namespace corvane
