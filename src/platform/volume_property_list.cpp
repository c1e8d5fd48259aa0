#include "platform/volume_property_list.h"

#include <plist/plist.h>

#include <cstdint>
#include <memory>

namespace corvane::platform {
namespace {

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};

std::optional<std::string> stringValue(plist_t dictionary, const char* key) {
  plist_t node = plist_dict_get_item(dictionary, key);
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return std::nullopt;
  std::uint64_t length = 0;
  const char* text = plist_get_string_ptr(node, &length);
  if (text == nullptr || length == 0) return std::nullopt;
  return std::string(text, static_cast<std::size_t>(length));
}

}  // namespace

VolumeDescription volumeDescriptionFromPropertyList(const std::string& data) {
  VolumeDescription description;
  if (data.empty()) return description;
  plist_t parsed = nullptr;
  const auto length = static_cast<std::uint32_t>(data.size());
  if (plist_is_binary(data.data(), length))
    plist_from_bin(data.data(), length, &parsed);
  else
    plist_from_xml(data.data(), length, &parsed);
  const std::unique_ptr<std::remove_pointer_t<plist_t>, PlistFree> root(parsed);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return description;
  description.uuid = stringValue(root.get(), "VolumeUUID");
  description.fileSystemType = stringValue(root.get(), "FilesystemType");
  if (!description.fileSystemType) description.fileSystemType = stringValue(root.get(), "FilesystemName");
  description.label = stringValue(root.get(), "VolumeName");
  return description;
}

}  // namespace corvane::platform
