#include "cleaner/clean_item.h"

#include "settings/localization.h"

namespace corvane {

std::string_view categoryDisplayString(CleanCategoryType category) {
  switch (category) {
    case CleanCategoryType::system:
      return "System Junk";
    case CleanCategoryType::development:
      return "Developer Caches";
    case CleanCategoryType::largeFiles:
      return "Space Hogs";
  }
  return "";
}

std::string_view categoryTitleKey(CleanCategoryType category) {
  switch (category) {
    case CleanCategoryType::system:
      return "cleaner.category.system";
    case CleanCategoryType::development:
      return "cleaner.category.development";
    case CleanCategoryType::largeFiles:
      return "cleaner.category.large_files";
  }
  return "";
}

std::string_view riskName(CleanRiskLevel risk) { return risk == CleanRiskLevel::safe ? "safe" : "warning"; }

std::string_view statusName(CleanItemStatus::Kind kind) {
  switch (kind) {
    case CleanItemStatus::Kind::pending:
      return "pending";
    case CleanItemStatus::Kind::success:
      return "success";
    case CleanItemStatus::Kind::failed:
      return "failed";
  }
  return "";
}

std::string CleanFailure::message() const {
  auto shown = arguments;
  for (const auto position : keyArguments) {
    if (position < shown.size()) shown[position] = localized(shown[position]);
  }
  return formatLocalizedText(localized(key), shown);
}

}  // namespace corvane
