// Refuses, while the user is still choosing items, any path that is protected, with the
// localized reason, so that a protected folder cannot even be added to a migration.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// What a chooser shows when it refuses a path: an error of the selection domain.
struct SelectionRefusal {
  std::string domain;
  int code = 0;
  std::string localizedDescription;
};

class MigrationSelectionValidator {
 public:
  using ProtectionTest = std::function<bool(const std::string& path)>;

  static constexpr std::string_view kErrorDomain = "Corvane.Selection";
  static constexpr int kProtectedLocationCode = 1;

  explicit MigrationSelectionValidator(ProtectionTest isProtected);

  // Absent when the path may be chosen.
  std::optional<SelectionRefusal> validate(const std::string& path) const;

 private:
  ProtectionTest isProtected_;
};

}  // namespace corvane
