#include "catalogue/app_bundle_metadata.h"

#include <fcntl.h>
#include <plist/plist.h>

#include <cstdint>
#include <memory>

#include "platform/no_follow_open.h"
#include "platform/posix_error.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {
namespace {

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistPointer = std::unique_ptr<std::remove_pointer_t<plist_t>, PlistFree>;

PlistPointer parsePropertyList(const std::string& data) {
  plist_t root = nullptr;
  const auto length = static_cast<std::uint32_t>(data.size());
  // Both calls exist in every libplist version we build against; newer ones also return a code.
  if (plist_is_binary(data.data(), length)) {
    plist_from_bin(data.data(), length, &root);
  } else {
    plist_from_xml(data.data(), length, &root);
  }
  return PlistPointer(root);
}

}  // namespace

std::optional<std::string> AppBundleMetadata::versionFromPropertyList(const std::string& data) {
  if (data.empty() || data.size() > kMaximumPropertyListSize) return std::nullopt;
  const PlistPointer root = parsePropertyList(data);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return std::nullopt;
  plist_t node = plist_dict_get_item(root.get(), "CFBundleShortVersionString");
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
  std::uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  if (text == nullptr) return std::nullopt;
  return std::string(text, static_cast<std::size_t>(length));
}

std::optional<std::string> AppBundleMetadata::version(const std::string& bundlePath) {
  const std::string contents = joinPath(bundlePath, "Contents");
  try {
    // Opened like a file on an untrusted disk: a FIFO or a huge file in its place reads as absent.
    platform::UniqueFd directory(::open(contents.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) platform::throwErrno(contents);
    const std::string data = platform::readRegularFileNoFollow(directory.get(), "Info.plist", kMaximumPropertyListSize,
                                                               contents + "/Info.plist");
    return versionFromPropertyList(data);
  } catch (const platform::PosixError& error) {
    logDebug("Info.plist unreadable: " + std::string(error.what()));
    return std::nullopt;
  }
}

}  // namespace corvane
