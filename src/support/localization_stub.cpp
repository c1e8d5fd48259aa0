// Stand-in until the string tables and LocalizationManager land: every key shows as itself.
#include "support/localization.h"

namespace corvane {

std::string localized(std::string_view key) { return std::string(key); }

}  // namespace corvane
