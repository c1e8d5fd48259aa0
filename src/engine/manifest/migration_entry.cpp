#include "engine/manifest/migration_entry.h"

#include <sys/stat.h>

#include <array>

#include "engine/migration_issue.h"
#include "platform/file_system.h"

namespace corvane {
namespace {

constexpr std::array<std::string_view, 6> kKindNames = {"directory", "regular", "symbolicLink",
                                                        "fifo",      "socket",  "special"};

}  // namespace

MigrationEntry::Kind MigrationEntry::kindOfMode(std::uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return Kind::directory;
    case S_IFREG:
      return Kind::regular;
    case S_IFLNK:
      return Kind::symbolicLink;
    case S_IFIFO:
      return Kind::fifo;
    case S_IFSOCK:
      return Kind::socket;
    default:
      return Kind::special;
  }
}

MigrationEntry entryFromStatus(const platform::FileStatus& status, std::optional<std::string> linkText) {
  MigrationEntry entry;
  entry.kind = MigrationEntry::kindOfMode(status.mode);
  entry.inode = status.inode;
  entry.device = status.device;
  entry.mode = static_cast<std::uint16_t>(status.mode & 07777);
  entry.flags = status.flags;
  // A directory's size and times move whenever its children change, the engine's own work
  // included, so they take no part in comparisons.
  if (entry.kind != MigrationEntry::Kind::directory) {
    entry.size = status.size;
    entry.modifiedSeconds = status.modified.seconds;
    entry.modifiedNanoseconds = status.modified.nanoseconds;
    entry.changedSeconds = status.changed.seconds;
    entry.changedNanoseconds = status.changed.nanoseconds;
  }
  if (entry.kind == MigrationEntry::Kind::symbolicLink && linkText) entry.link = decodeUtf8Lossy(*linkText);
  return entry;
}

std::optional<MigrationEntry> MigrationEntry::read(const std::string& path, int directoryDescriptor) {
  auto status = platform::statNoFollow(directoryDescriptor, path);
  if (!status) return std::nullopt;
  std::optional<std::string> linkText;
  if (kindOfMode(status->mode) == Kind::symbolicLink) linkText = platform::readLinkText(directoryDescriptor, path);
  return entryFromStatus(*status, std::move(linkText));
}

std::string_view kindName(MigrationEntry::Kind kind) { return kKindNames[static_cast<std::size_t>(kind)]; }

std::optional<MigrationEntry::Kind> kindFromName(std::string_view name) {
  for (std::size_t i = 0; i < kKindNames.size(); ++i) {
    if (kKindNames[i] == name) return static_cast<MigrationEntry::Kind>(i);
  }
  return std::nullopt;
}

nlohmann::ordered_json toJson(const MigrationEntry& entry) {
  nlohmann::ordered_json json;
  json["kind"] = kindName(entry.kind);
  json["inode"] = entry.inode;
  json["device"] = entry.device;
  json["size"] = entry.size;
  json["modifiedSeconds"] = entry.modifiedSeconds;
  json["modifiedNanoseconds"] = entry.modifiedNanoseconds;
  json["changedSeconds"] = entry.changedSeconds;
  json["changedNanoseconds"] = entry.changedNanoseconds;
  if (entry.link) json["link"] = *entry.link;
  json["mode"] = entry.mode;
  json["flags"] = entry.flags;
  return json;
}

namespace {

template <typename Integer>
Integer integerField(const nlohmann::json& json, const char* key) {
  auto found = json.find(key);
  if (found == json.end() || !found->is_number_integer()) throw MigrationIssue("error.migration_manifest_invalid", key);
  if constexpr (std::is_unsigned_v<Integer>) {
    if (found->is_number_unsigned()) {
      auto value = found->get<std::uint64_t>();
      if (value > std::numeric_limits<Integer>::max()) throw MigrationIssue("error.migration_manifest_invalid", key);
      return static_cast<Integer>(value);
    }
    auto value = found->get<std::int64_t>();
    if (value < 0 || static_cast<std::uint64_t>(value) > std::numeric_limits<Integer>::max()) {
      throw MigrationIssue("error.migration_manifest_invalid", key);
    }
    return static_cast<Integer>(value);
  } else {
    if (found->is_number_unsigned() &&
        found->get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<Integer>::max())) {
      throw MigrationIssue("error.migration_manifest_invalid", key);
    }
    auto value = found->get<std::int64_t>();
    if (value < std::numeric_limits<Integer>::min() || value > std::numeric_limits<Integer>::max()) {
      throw MigrationIssue("error.migration_manifest_invalid", key);
    }
    return static_cast<Integer>(value);
  }
}

}  // namespace

MigrationEntry entryFromJson(const nlohmann::json& json) {
  if (!json.is_object()) throw MigrationIssue("error.migration_manifest_invalid", "");
  auto kindField = json.find("kind");
  if (kindField == json.end() || !kindField->is_string())
    throw MigrationIssue("error.migration_manifest_invalid", "kind");
  auto kind = kindFromName(kindField->get<std::string>());
  if (!kind) throw MigrationIssue("error.migration_manifest_invalid", "kind");
  MigrationEntry entry;
  entry.kind = *kind;
  entry.inode = integerField<std::uint64_t>(json, "inode");
  entry.device = integerField<std::int32_t>(json, "device");
  entry.size = integerField<std::int64_t>(json, "size");
  entry.modifiedSeconds = integerField<std::int64_t>(json, "modifiedSeconds");
  entry.modifiedNanoseconds = integerField<std::int64_t>(json, "modifiedNanoseconds");
  entry.changedSeconds = integerField<std::int64_t>(json, "changedSeconds");
  entry.changedNanoseconds = integerField<std::int64_t>(json, "changedNanoseconds");
  if (auto link = json.find("link"); link != json.end() && !link->is_null()) {
    if (!link->is_string()) throw MigrationIssue("error.migration_manifest_invalid", "link");
    entry.link = link->get<std::string>();
  }
  entry.mode = integerField<std::uint16_t>(json, "mode");
  entry.flags = integerField<std::uint32_t>(json, "flags");
  return entry;
}

nlohmann::ordered_json manifestToJson(const MigrationManifest& manifest) {
  nlohmann::ordered_json json = nlohmann::ordered_json::object();
  for (const auto& [path, entry] : manifest) json[path] = toJson(entry);
  return json;
}

MigrationManifest manifestFromJson(const nlohmann::json& json) {
  if (!json.is_object()) throw MigrationIssue("error.migration_manifest_invalid", "");
  MigrationManifest manifest;
  for (const auto& [path, value] : json.items()) manifest.emplace(path, entryFromJson(value));
  return manifest;
}

std::string decodeUtf8Lossy(std::string_view bytes) {
  std::string result;
  result.reserve(bytes.size());
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  std::size_t i = 0;
  const std::size_t n = bytes.size();
  while (i < n) {
    unsigned char lead = data[i];
    std::size_t length = 0;
    std::uint32_t minimum = 0;
    if (lead < 0x80) {
      result.push_back(static_cast<char>(lead));
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, minimum = 0x10000;
    }
    bool valid = length > 0 && i + length <= n;
    std::uint32_t codePoint = length > 0 ? lead & (0x7F >> length) : 0;
    for (std::size_t k = 1; valid && k < length; ++k) {
      if ((data[i + k] & 0xC0) != 0x80) {
        valid = false;
      } else {
        codePoint = (codePoint << 6) | (data[i + k] & 0x3F);
      }
    }
    valid = valid && codePoint >= minimum && codePoint <= 0x10FFFF && !(codePoint >= 0xD800 && codePoint <= 0xDFFF);
    if (valid) {
      result.append(bytes.substr(i, length));
      i += length;
    } else {
      result.append("\xEF\xBF\xBD");
      ++i;
    }
  }
  return result;
}

}  // namespace corvane
