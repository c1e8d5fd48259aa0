// One `.strings` table ("key" = "text"; with /* */ and // comments, backslash escapes, UTF-8):
// the texts of one language, keyed by localization key.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace corvane {

// Why a table could not be read, with the line (1-based) where reading stopped.
class StringsFormatError : public std::runtime_error {
 public:
  StringsFormatError(std::size_t line, const std::string& reason);
  std::size_t line() const noexcept { return line_; }

 private:
  std::size_t line_;
};

class StringsTable {
 public:
  struct Entry {
    std::string key;
    std::string text;
    std::size_t line = 0;
  };

  StringsTable() = default;
  // Throws StringsFormatError for anything that is not a well-formed table in UTF-8 (a UTF-8
  // byte-order mark is allowed). A key given twice keeps its last text, as the platform does.
  static StringsTable parse(std::string_view contents);
  // The table of a file; absent (and logged) when the file is missing, unreadable or malformed,
  // so a broken table never stops the program.
  static std::optional<StringsTable> load(const std::string& path);

  std::optional<std::string_view> text(std::string_view key) const;
  // Every entry in file order, repeated keys included (tests look for duplicates).
  const std::vector<Entry>& entries() const { return entries_; }
  std::size_t size() const { return index_.size(); }

 private:
  std::vector<Entry> entries_;
  std::unordered_map<std::string, std::size_t> index_;
};

}  // namespace corvane
