// The shipped string tables against the code: every key the sources use has a text in every
// language, no table repeats a key, and each key's placeholders are the same in all languages.
#include <fmt/args.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <algorithm>
#include <cctype>
#include <set>

#include "fixtures/sample_tree.h"
#include "support/strings_table.h"

namespace corvane {
namespace {

const char* const kLanguages[] = {"en", "zh-Hans", "zh-Hant"};

// Functions whose first argument is a localization key.
const char* const kKeyTakingCalls[] = {"localizedWithDetail", "localizedFormat", "localized", "MigrationIssue"};

// Literals with these prefixes are keys wherever they appear (tables of definitions, maps).
const char* const kKeyPrefixes[] = {"app",         "log",       "migration",   "error", "progress", "disk",
                                    "disk_authorization", "ghost_files", "disk_rename", "cleaner", "cli",
                                    "language",    "fstab",     "settings"};

// A known prefix, a dot, then letters, digits, "_", "." or "-", ending in a letter or digit.
bool looksLikeKey(const std::string& text) {
  const auto dot = text.find('.');
  if (dot == std::string::npos || dot + 1 >= text.size()) return false;
  const std::string prefix = text.substr(0, dot);
  if (std::find(std::begin(kKeyPrefixes), std::end(kKeyPrefixes), prefix) == std::end(kKeyPrefixes)) return false;
  for (std::size_t i = dot + 1; i < text.size(); ++i) {
    const char c = text[i];
    if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == '-')) return false;
  }
  return std::isalnum(static_cast<unsigned char>(text.back())) != 0;
}

struct Literal {
  std::string text;
  std::size_t offset = 0;  // of the opening quote
  std::size_t end = 0;     // just past the closing quote
};

// The string literals of a C++ source, comments and character literals skipped. Raw string
// literals are skipped too: they hold scripts and JSON, not keys.
std::vector<Literal> stringLiterals(const std::string& source) {
  std::vector<Literal> literals;
  std::size_t i = 0;
  while (i < source.size()) {
    const char c = source[i];
    if (c == '/' && i + 1 < source.size() && source[i + 1] == '/') {
      i = source.find('\n', i);
      if (i == std::string::npos) break;
    } else if (c == '/' && i + 1 < source.size() && source[i + 1] == '*') {
      i = source.find("*/", i + 2);
      if (i == std::string::npos) break;
      i += 2;
    } else if (c == 'R' && i + 1 < source.size() && source[i + 1] == '"' &&
               (i == 0 || !(std::isalnum(static_cast<unsigned char>(source[i - 1])) || source[i - 1] == '_'))) {
      const auto open = source.find('(', i);
      const std::string delimiter = ")" + source.substr(i + 2, open - i - 2) + "\"";
      i = source.find(delimiter, open);
      if (i == std::string::npos) break;
      i += delimiter.size();
    } else if (c == '\'') {
      ++i;
      while (i < source.size() && source[i] != '\'') i += source[i] == '\\' ? 2 : 1;
      ++i;
    } else if (c == '"') {
      Literal literal{"", i};
      ++i;
      while (i < source.size() && source[i] != '"') {
        if (source[i] == '\\' && i + 1 < source.size()) {
          literal.text.push_back(source[i]);
          ++i;
        }
        literal.text.push_back(source[i]);
        ++i;
      }
      ++i;
      literal.end = i;
      literals.push_back(std::move(literal));
    } else {
      ++i;
    }
  }
  return literals;
}

enum class KeyUse { none, key, prefix };

// Whether a literal is the key argument of a lookup: the whole key, or the fixed start of a key
// completed at run time ("migration.occupancy.reason_" + name).
KeyUse keyUse(const std::string& source, const Literal& literal) {
  std::size_t i = literal.offset;
  while (i > 0 && std::isspace(static_cast<unsigned char>(source[i - 1]))) --i;
  if (i == 0 || source[i - 1] != '(') return KeyUse::none;
  --i;
  while (i > 0 && std::isspace(static_cast<unsigned char>(source[i - 1]))) --i;
  for (const std::string call : kKeyTakingCalls) {
    if (i >= call.size() && source.compare(i - call.size(), call.size(), call) == 0) {
      const std::size_t start = i - call.size();
      if (start > 0 && (std::isalnum(static_cast<unsigned char>(source[start - 1])) || source[start - 1] == '_'))
        return KeyUse::none;
      std::size_t after = literal.end;
      while (after < source.size() && std::isspace(static_cast<unsigned char>(source[after]))) ++after;
      return after < source.size() && source[after] == '+' ? KeyUse::prefix : KeyUse::key;
    }
  }
  return KeyUse::none;
}

struct SourceKeys {
  std::map<std::string, std::string> keys;      // key → first file using it
  std::map<std::string, std::string> prefixes;  // start of keys completed at run time → file
};

SourceKeys keysIn(const std::string& source, const std::string& file, SourceKeys found = {}) {
  for (const auto& literal : stringLiterals(source)) {
    const KeyUse use = keyUse(source, literal);
    if (use == KeyUse::prefix) {
      found.prefixes.emplace(literal.text, file);
    } else if (use == KeyUse::key || looksLikeKey(literal.text)) {
      found.keys.emplace(literal.text, file);
    }
  }
  return found;
}

// Every key the sources use, with the first file that uses it.
SourceKeys keysUsedInSources() {
  SourceKeys found;
  const std::filesystem::path root = std::filesystem::path(CORVANE_TEST_SOURCE_DIR) / "src";
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    const auto extension = entry.path().extension();
    if (!entry.is_regular_file() || (extension != ".cpp" && extension != ".h" && extension != ".mm")) continue;
    found = keysIn(readFile(entry.path()), std::filesystem::relative(entry.path(), root).string(), std::move(found));
  }
  return found;
}

StringsTable shippedTable(const std::string& language) {
  const std::string path =
      std::string(CORVANE_TEST_SOURCE_DIR) + "/resources/" + language + ".lproj/Localizable.strings";
  return StringsTable::parse(readFile(path));
}

// The numbers of the {N} placeholders in a text.
std::set<int> placeholders(const std::string& text) {
  std::set<int> found;
  for (std::size_t open = text.find('{'); open != std::string::npos; open = text.find('{', open + 1)) {
    std::size_t end = open + 1;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end]))) ++end;
    if (end > open + 1 && end < text.size() && text[end] == '}') found.insert(std::stoi(text.substr(open + 1, end - open - 1)));
  }
  return found;
}

std::string describe(const std::set<int>& numbers) {
  std::string text;
  for (const int n : numbers) text += "{" + std::to_string(n) + "}";
  return text.empty() ? "none" : text;
}

TEST(LocalizationTablesTest, TheExtractorFindsKeysWhereverCodeUsesThem) {
  const std::string source = R"CPP(
    // localized("commented.out") is no use of a key
    auto a = localized("cli.scan.title");
    auto b = localizedFormat(
        "any.prefix.counts", x);
    throw MigrationIssue("error.migration_source_changed", path);
    const char* table[] = {"cleaner.item.npm", "cleaner.item."};
    auto c = relocalized("not.a.call");
    auto d = 'x'; auto e = "plain text \" with a quote";
    auto f = localized("migration.occupancy.reason_" + name);
    auto g = R"(localized("inside.a.raw.string"))";
  )CPP";
  const auto found = keysIn(source, "example.cpp");
  std::set<std::string> keys;
  for (const auto& [key, file] : found.keys) keys.insert(key);
  EXPECT_EQ(keys, (std::set<std::string>{"cli.scan.title", "any.prefix.counts", "error.migration_source_changed",
                                          "cleaner.item.npm"}));
  ASSERT_EQ(found.prefixes.size(), 1u);
  EXPECT_EQ(found.prefixes.begin()->first, "migration.occupancy.reason_");
}

TEST(LocalizationTablesTest, EveryKeyUsedInTheSourcesHasATextInEveryLanguage) {
  const auto used = keysUsedInSources();
  ASSERT_GT(used.keys.size(), 20u) << "the key extraction found almost nothing; is CORVANE_TEST_SOURCE_DIR right?";
  for (const char* language : kLanguages) {
    const auto table = shippedTable(language);
    std::string missing;
    for (const auto& [key, file] : used.keys) {
      const auto text = table.text(key);
      if (!text || text->empty()) missing += "\n  " + key + "  (used in " + file + ")";
    }
    // A key completed at run time can't be checked whole; at least its family must exist.
    for (const auto& [prefix, file] : used.prefixes) {
      const bool any = std::any_of(table.entries().begin(), table.entries().end(),
                                   [&](const auto& entry) { return entry.key.rfind(prefix, 0) == 0; });
      if (!any) missing += "\n  " + prefix + "…  (keys completed at run time in " + file + ")";
    }
    EXPECT_TRUE(missing.empty()) << language << " lacks texts for:" << missing;
  }
}

TEST(LocalizationTablesTest, TablesHaveNoRepeatedKeysAndTheSameKeysInEveryLanguage) {
  std::map<std::string, std::set<std::string>> keysByLanguage;
  for (const char* language : kLanguages) {
    const auto table = shippedTable(language);
    std::map<std::string, std::size_t> firstLine;
    for (const auto& entry : table.entries()) {
      const auto [at, inserted] = firstLine.emplace(entry.key, entry.line);
      EXPECT_TRUE(inserted) << language << ": \"" << entry.key << "\" appears on lines " << at->second << " and "
                            << entry.line;
      keysByLanguage[language].insert(entry.key);
    }
  }
  for (const char* language : kLanguages) {
    for (const auto& key : keysByLanguage["en"]) {
      EXPECT_TRUE(keysByLanguage[language].count(key)) << language << " lacks \"" << key << "\"";
    }
    for (const auto& key : keysByLanguage[language]) {
      EXPECT_TRUE(keysByLanguage["en"].count(key)) << "\"" << key << "\" is in " << language << " but not in en";
    }
  }
}

TEST(LocalizationTablesTest, PlaceholdersAgreeAcrossLanguagesAndFormat) {
  const auto english = shippedTable("en");
  for (const char* language : kLanguages) {
    const auto table = shippedTable(language);
    for (const auto& entry : table.entries()) {
      const auto reference = english.text(entry.key);
      if (!reference) continue;  // reported by the key comparison
      EXPECT_EQ(describe(placeholders(entry.text)), describe(placeholders(std::string(*reference))))
          << language << ": \"" << entry.key << "\" = \"" << entry.text << "\"";
      // Each text must format with as many arguments as its highest placeholder asks for.
      const auto numbers = placeholders(entry.text);
      fmt::dynamic_format_arg_store<fmt::format_context> arguments;
      const int count = numbers.empty() ? 0 : *numbers.rbegin() + 1;
      for (int n = 0; n < count; ++n) arguments.push_back(std::string("<") + std::to_string(n) + ">");
      if (count > 0) {
        EXPECT_NO_THROW(fmt::vformat(entry.text, arguments)) << language << ": \"" << entry.key << "\"";
      }
    }
  }
}

}  // namespace
}  // namespace corvane
