#include "engine/migration_issue.h"

#include "settings/localization.h"

namespace corvane {
namespace {

std::string joined(const std::string& key, const std::vector<std::string>& arguments) {
  std::string text = key;
  for (const auto& argument : arguments) text += (&argument == &arguments.front() ? ": " : ", ") + argument;
  return text;
}

}  // namespace

MigrationIssue::MigrationIssue(std::string key, std::string detail)
    : std::runtime_error(detail.empty() ? key : key + ": " + detail),
      key_(std::move(key)),
      detail_(std::move(detail)) {}

MigrationIssue::MigrationIssue(std::string key, std::vector<std::string> arguments)
    : std::runtime_error(joined(key, arguments)),
      key_(std::move(key)),
      detail_(arguments.empty() ? std::string() : arguments.front()),
      arguments_(std::move(arguments)) {}

std::string MigrationIssue::localizedDescription() const {
  if (arguments_.size() > 1) return formatLocalizedText(localized(key_), arguments_);
  return localizedWithDetail(key_, detail_);
}

}  // namespace corvane
