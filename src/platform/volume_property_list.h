// Reads what "diskutil info -plist" prints about a volume (XML or binary property list): the
// UUID, the type ("FilesystemType", else "FilesystemName") and the name. Portable, so the
// parsing is tried on any system with real property-list texts.
#pragma once

#include <string>

#include "platform/volume_description.h"

namespace corvane::platform {

// Values that are missing or not strings are absent; a text that is no property list gives an
// empty description.
VolumeDescription volumeDescriptionFromPropertyList(const std::string& data);

}  // namespace corvane::platform
