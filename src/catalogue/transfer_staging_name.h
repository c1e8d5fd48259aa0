// The name of the folder a transfer builds its copy in, beside the copy's place:
// ".corvane-transfer-<UUID>". Such a folder belongs to a transfer under way or interrupted, so no
// record may name it or a folder holding it.
#pragma once

#include <string_view>

namespace corvane {

inline constexpr std::string_view kTransferStagingPrefix = ".corvane-transfer-";

inline bool isTransferStagingName(std::string_view name) { return name.starts_with(kTransferStagingPrefix); }

}  // namespace corvane
