// The encoding of migrated_apps.json, shared byte for byte with the macOS program: an array of
// record objects with sorted keys, upper-case UUIDs and dates as seconds since 2001-01-01 UTC.
// Reading is strict about shape: one missing key, null or wrong type makes the whole file
// unreadable, so the caller falls back to another source instead of acting on half a record.
// Paths are read as written (they may be relative or hold "." and ".."): what acts on them
// checks them.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/migrated_app.h"

namespace corvane {

class MigratedAppsFormatError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class MigratedAppsFileFormat {
 public:
  // A record file larger than this is refused unread.
  static constexpr std::size_t kMaximumFileSize = 64 * 1024 * 1024;
  // Longer paths cannot name anything on the platforms that share the file.
  static constexpr std::size_t kMaximumPathLength = 4096;

  // Throws MigratedAppsFormatError when a text is not valid UTF-8 or a date is not finite.
  static std::string encode(const std::vector<MigratedApp>& apps);
  // Throws MigratedAppsFormatError describing the first problem found.
  static std::vector<MigratedApp> decode(std::string_view data);
};

}  // namespace corvane
