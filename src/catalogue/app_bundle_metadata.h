// Reads what an application bundle says about itself in Contents/Info.plist (XML or binary
// property list): its short version string, shown beside migrated applications and their
// backup versions.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace corvane {

class AppBundleMetadata {
 public:
  AppBundleMetadata() = delete;

  // An Info.plist larger than this is not read.
  static constexpr std::size_t kMaximumPropertyListSize = 8 * 1024 * 1024;

  // "CFBundleShortVersionString" when present and a string; absent for anything unreadable.
  static std::optional<std::string> version(const std::string& bundlePath);
  // The same, from the property list's bytes.
  static std::optional<std::string> versionFromPropertyList(const std::string& data);
};

}  // namespace corvane
