// One thing the cleaner found: what it is, where it lives, how big it is, whether the user wants
// it removed and how its removal went. Also the small closed kinds an item is described by.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// Items are grouped on screen in this order.
enum class CleanCategoryType { system, development, largeFiles };
// The display string the category is known by, and the key of its localized title.
std::string_view categoryDisplayString(CleanCategoryType category);
std::string_view categoryTitleKey(CleanCategoryType category);

// `warning` items hold data the owning tool rebuilds on next use, so they start unselected.
enum class CleanRiskLevel { safe, warning };
std::string_view riskName(CleanRiskLevel risk);

// Why an item could not be cleaned: a localization key and the values for its placeholders,
// localized when shown so that a language switch reaches it too.
struct CleanFailure {
  std::string key;
  std::vector<std::string> arguments;
  // Positions in `arguments` that hold localization keys rather than text (a reason).
  std::vector<std::size_t> keyArguments;
  std::string message() const;
  bool operator==(const CleanFailure&) const = default;
};

struct CleanItemStatus {
  enum class Kind { pending, success, failed };
  Kind kind = Kind::pending;
  std::optional<CleanFailure> failure;  // present exactly when `failed`

  static CleanItemStatus pending() { return {}; }
  static CleanItemStatus success() { return {Kind::success, std::nullopt}; }
  static CleanItemStatus failed(CleanFailure failure) { return {Kind::failed, std::move(failure)}; }
  bool operator==(const CleanItemStatus&) const = default;
};
std::string_view statusName(CleanItemStatus::Kind kind);

struct CleanItem {
  std::string id;  // the definition's id
  CleanCategoryType category = CleanCategoryType::system;
  std::string name;  // localized from the definition's name key when scanned
  std::string descriptionKey;
  CleanRiskLevel riskLevel = CleanRiskLevel::safe;
  std::vector<std::string> paths;  // expanded paths that existed as directories when scanned
  std::int64_t sizeBytes = 0;
  bool isSelected = false;
  CleanItemStatus status;
};

}  // namespace corvane
