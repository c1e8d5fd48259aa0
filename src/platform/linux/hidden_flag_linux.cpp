#include "platform/hidden_flag.h"

namespace corvane::platform {

// File managers on Linux hide names that begin with a dot; there is no flag to add.
void setHiddenFlag(int, const std::string&) {}

}  // namespace corvane::platform
