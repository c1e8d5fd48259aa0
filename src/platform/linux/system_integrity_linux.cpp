#include "platform/system_integrity.h"

namespace corvane::platform {

// Nothing on Linux forbids root to change /etc/fstab.
bool isSystemIntegrityProtectionEnabled() { return false; }

}  // namespace corvane::platform
