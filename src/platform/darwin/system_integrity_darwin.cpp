#include "platform/process.h"
#include "platform/system_integrity.h"
#include "support/diagnostic_log.h"

namespace corvane::platform {

bool isSystemIntegrityProtectionEnabled() {
  try {
    ProcessRequest request;
    request.executable = "/usr/bin/csrutil";
    request.arguments = {"status"};
    return runProcess(request).standardOutput.find("status: enabled") != std::string::npos;
  } catch (const std::exception& error) {
    logError(std::string("Error checking SIP status: ") + error.what());
    return false;
  }
}

}  // namespace corvane::platform
