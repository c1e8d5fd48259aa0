#include "platform/simulator_tools.h"

namespace corvane::platform {

std::optional<std::string> simulatorListingTool() { return std::nullopt; }

}  // namespace corvane::platform
