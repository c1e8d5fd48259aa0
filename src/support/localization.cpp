#include "support/localization.h"

#include "support/localization_manager.h"

namespace corvane {

std::string localized(std::string_view key) { return LocalizationManager::shared().localized(key); }

}  // namespace corvane
