// One file-system object of an item's tree as the manifest records it, and the manifest itself:
// a map from the path relative to the item's root ("" for the root) to its entry.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "engine/manifest/migration_file_identity.h"
#include "engine/manifest/migration_link_text.h"

namespace corvane {

struct MigrationEntry {
  enum class Kind : std::uint8_t { directory, regular, symbolicLink, fifo, socket, special };

  Kind kind = Kind::regular;
  std::uint16_t mode = 0;
  std::int32_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t modifiedSeconds = 0;
  std::int64_t modifiedNanoseconds = 0;
  std::int64_t changedSeconds = 0;
  std::int64_t changedNanoseconds = 0;
  MigrationLinkText link;
  std::uint32_t flags = 0;

  bool operator==(const MigrationEntry&) const = default;

  MigrationFileIdentity identity() const { return {device, inode}; }

  // fstatat(directoryDescriptor, path, AT_SYMLINK_NOFOLLOW). Absent when the object does not
  // exist; any other failure throws platform::PosixError with the path. A link text of 1025
  // bytes or more throws PosixError with no path.
  static std::optional<MigrationEntry> read(const std::string& path, int directoryDescriptor);

  static Kind kindOfMode(std::uint32_t mode);
};

namespace platform {
struct FileStatus;
}
// The entry for an object already stat'ed; `linkText` is the raw link text for links.
MigrationEntry entryFromStatus(const platform::FileStatus& status, std::optional<std::string> linkText);

std::string_view kindName(MigrationEntry::Kind kind);
std::optional<MigrationEntry::Kind> kindFromName(std::string_view name);

// JSON with the keys in the order kind, inode, device, size, modifiedSeconds,
// modifiedNanoseconds, changedSeconds, changedNanoseconds, link (only when present), mode, flags.
nlohmann::ordered_json toJson(const MigrationEntry& entry);
// Throws MigrationIssue "error.migration_manifest_invalid" for a malformed object.
MigrationEntry entryFromJson(const nlohmann::json& json);

using MigrationManifest = std::map<std::string, MigrationEntry, std::less<>>;

nlohmann::ordered_json manifestToJson(const MigrationManifest& manifest);
MigrationManifest manifestFromJson(const nlohmann::json& json);

// Decodes link text as UTF-8, replacing invalid sequences with U+FFFD.
std::string decodeUtf8Lossy(std::string_view bytes);

}  // namespace corvane
