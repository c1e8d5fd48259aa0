// The error the migration engine throws: a localization key and a detail (a path, or empty).
#pragma once

#include <stdexcept>
#include <string>

namespace corvane {

class MigrationIssue : public std::runtime_error {
 public:
  MigrationIssue(std::string key, std::string detail = {});

  const std::string& key() const noexcept { return key_; }
  const std::string& detail() const noexcept { return detail_; }
  // The key's text in the current language with the detail placed into it.
  std::string localizedDescription() const;

 private:
  std::string key_;
  std::string detail_;
};

}  // namespace corvane
