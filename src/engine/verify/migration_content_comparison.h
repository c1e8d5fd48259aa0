// Compares a regular file's copy with its original side by side, 1 MiB at a time, through one
// pair of buffers reused for every file, so memory stays flat whatever the file sizes. The
// copy's cached pages are dropped first, so its bytes come from the medium.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "engine/manifest/migration_entry.h"
#include "platform/read_ahead.h"

namespace corvane {

class MigrationContentComparison {
 public:
  static constexpr std::size_t kChunkSize = 1048576;

  MigrationContentComparison();

  // True when both files hold the same bytes and end together. `copy` must be the object read as
  // `copyEntry`, and the original must still be `expected` (else
  // "error.migration_source_changed"); a copy that vanished or changed compares unequal. Each
  // chunk's length goes to `bytesRead`. Read failures throw platform::PosixError.
  // `openedAhead` is the copy as opened ahead of its turn with its cached pages already dropped;
  // it is used only while it is still the object at `copy`.
  bool sameContents(const std::string& original, const MigrationEntry& expected, const std::string& copy,
                    const MigrationEntry& copyEntry, const std::function<void(std::int64_t)>& bytesRead,
                    std::optional<platform::OpenedAhead> openedAhead = std::nullopt);

 private:
  std::vector<char> original_;
  std::vector<char> copy_;
};

}  // namespace corvane
