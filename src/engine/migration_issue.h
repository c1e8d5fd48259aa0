// The error the migration engine throws: a localization key and what goes into its text (a
// path, several paths, or nothing).
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace corvane {

class MigrationIssue : public std::runtime_error {
 public:
  MigrationIssue(std::string key, std::string detail = {});
  // A text with several places ({0}, {1}, …); detail() is the first argument.
  MigrationIssue(std::string key, std::vector<std::string> arguments);

  const std::string& key() const noexcept { return key_; }
  const std::string& detail() const noexcept { return detail_; }
  // The key's text in the current language with the detail placed into it.
  std::string localizedDescription() const;

 private:
  std::string key_;
  std::string detail_;
  std::vector<std::string> arguments_;
};

}  // namespace corvane
