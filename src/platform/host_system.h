// Which operating system Corvane runs on, for the few tables (cleaner definitions, tool
// locations) whose contents differ by system while the code that uses them does not.
#pragma once

namespace corvane::platform {

enum class HostSystem { macOS, linuxDesktop };

HostSystem hostSystem();

}  // namespace corvane::platform
