// Names one file-system object across paths: its device and inode, read without following links.
#pragma once

#include <cstdint>
#include <functional>

namespace corvane {

struct MigrationFileIdentity {
  std::int32_t device = 0;
  std::uint64_t inode = 0;
  bool operator==(const MigrationFileIdentity&) const = default;
};

}  // namespace corvane

template <>
struct std::hash<corvane::MigrationFileIdentity> {
  std::size_t operator()(const corvane::MigrationFileIdentity& identity) const noexcept {
    return std::hash<std::uint64_t>{}(identity.inode * 0x9E3779B97F4A7C15ULL ^
                                      static_cast<std::uint32_t>(identity.device));
  }
};
