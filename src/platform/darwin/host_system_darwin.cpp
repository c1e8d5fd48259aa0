#include "platform/host_system.h"

namespace corvane::platform {

HostSystem hostSystem() { return HostSystem::macOS; }

}  // namespace corvane::platform
