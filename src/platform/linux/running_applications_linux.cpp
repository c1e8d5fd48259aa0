#include "platform/running_applications.h"

namespace corvane::platform {

std::set<std::string> runningApplicationBundleIdentifiers() { return {}; }

}  // namespace corvane::platform
