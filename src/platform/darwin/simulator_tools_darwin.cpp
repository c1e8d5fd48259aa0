#include "platform/simulator_tools.h"

namespace corvane::platform {

std::optional<std::string> simulatorListingTool() { return std::string("/usr/bin/xcrun"); }

}  // namespace corvane::platform
