#include "engine/migration_issue.h"

#include "settings/localization.h"

namespace corvane {

MigrationIssue::MigrationIssue(std::string key, std::string detail)
    : std::runtime_error(detail.empty() ? key : key + ": " + detail),
      key_(std::move(key)),
      detail_(std::move(detail)) {}

std::string MigrationIssue::localizedDescription() const { return localizedWithDetail(key_, detail_); }

}  // namespace corvane
