#include "engine/preflight/migration_selection_validator.h"

#include "settings/localization.h"

namespace corvane {

MigrationSelectionValidator::MigrationSelectionValidator(ProtectionTest isProtected)
    : isProtected_(std::move(isProtected)) {}

std::optional<SelectionRefusal> MigrationSelectionValidator::validate(const std::string& path) const {
  if (!isProtected_ || !isProtected_(path)) return std::nullopt;
  return SelectionRefusal{std::string(kErrorDomain), kProtectedLocationCode,
                          localizedFormat("migration.preflight.selection_protected", path)};
}

}  // namespace corvane
