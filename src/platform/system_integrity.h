// Whether the system's integrity protection forbids changing its file table. macOS runs
// "/usr/bin/csrutil status" and looks for "status: enabled" (a launch failure counts as not
// enabled, and is logged); Linux has no such protection and answers false.
#pragma once

namespace corvane::platform {

bool isSystemIntegrityProtectionEnabled();

}  // namespace corvane::platform
