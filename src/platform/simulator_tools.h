// Where the tool that lists the device simulators lives. macOS runs "/usr/bin/xcrun simctl";
// Linux has no simulators, so there is no tool and the device check has nothing to ask.
#pragma once

#include <optional>
#include <string>

namespace corvane::platform {

std::optional<std::string> simulatorListingTool();

}  // namespace corvane::platform
