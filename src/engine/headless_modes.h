// Modes in which the binary is started by Corvane itself (a probe, a privileged helper). They
// are recognised from the first argument before anything else starts.
#pragma once

#include <optional>

namespace corvane {

// The exit status when argv names a headless mode, else absent.
std::optional<int> runHeadlessMode(int argc, char** argv);

}  // namespace corvane
