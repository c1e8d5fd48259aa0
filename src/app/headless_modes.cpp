#include "app/headless_modes.h"

namespace corvane {

std::optional<int> runHeadlessMode(int /*argc*/, char** /*argv*/) { return std::nullopt; }

}  // namespace corvane
