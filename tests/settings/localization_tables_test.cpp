// The shipped string tables against the code: every key the sources use has a text in every
// language, no table repeats a key, and each key's placeholders are the same in all languages.
#include <fmt/args.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <set>

#include "fixtures/sample_tree.h"
#include "support/localization_test_support.h"
#include "support/strings_table.h"

namespace corvane {
namespace {

const char* const kLanguages[] = {"en", "zh-Hans", "zh-Hant"};

// Functions whose first argument is a localization key.
const char* const kKeyTakingCalls[] = {"localizedWithDetail", "localizedFormat", "localized", "MigrationIssue"};

// Literals with these prefixes are keys wherever they appear (tables of definitions, maps).
const char* const kKeyPrefixes[] = {
    "app",      "log",   "migration",          "error",    "progress",    "disk",        "cleaner", "cli",
    "language", "fstab", "disk_authorization", "settings", "ghost_files", "disk_rename", "ui"};

bool isWordCharacter(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// A known prefix, a dot, then letters, digits, "_", "." or "-", ending in a letter or digit.
bool looksLikeKey(const std::string& text) {
  const auto dot = text.find('.');
  if (dot == std::string::npos || dot + 1 >= text.size() ||
      std::find(std::begin(kKeyPrefixes), std::end(kKeyPrefixes), text.substr(0, dot)) == std::end(kKeyPrefixes)) {
    return false;
  }
  return std::all_of(text.begin() + static_cast<long>(dot) + 1, text.end(),
                     [](char c) { return isWordCharacter(c) || c == '.' || c == '-'; }) &&
         std::isalnum(static_cast<unsigned char>(text.back()));
}

// Whether the literal opening at `open` is the first argument of a key-taking call: 0 no, 1 the
// whole key, 2 the fixed start of a key completed at run time ("reason_" + name).
int keyUse(const std::string& source, std::size_t open, std::size_t end) {
  std::size_t i = open;
  while (i > 0 && std::isspace(static_cast<unsigned char>(source[i - 1]))) --i;
  if (i == 0 || source[--i] != '(') return 0;
  while (i > 0 && std::isspace(static_cast<unsigned char>(source[i - 1]))) --i;
  for (const std::string call : kKeyTakingCalls) {
    if (i < call.size() || source.compare(i - call.size(), call.size(), call) != 0) continue;
    if (i > call.size() && isWordCharacter(source[i - call.size() - 1])) return 0;
    while (end < source.size() && std::isspace(static_cast<unsigned char>(source[end]))) ++end;
    return end < source.size() && source[end] == '+' ? 2 : 1;
  }
  return 0;
}

struct SourceKeys {
  std::map<std::string, std::string> keys;      // key → first file using it
  std::map<std::string, std::string> prefixes;  // start of keys completed at run time → file
};

// Collects the keys among a C++ source's string literals. Comments and character literals are
// skipped, and so are raw string literals: they hold scripts and JSON, not keys.
void collectKeys(const std::string& source, const std::string& file, SourceKeys& found) {
  std::size_t i = 0;
  while (i < source.size()) {
    const char c = source[i];
    const char next = i + 1 < source.size() ? source[i + 1] : '\0';
    if (c == '/' && next == '/') {
      i = source.find('\n', i);
    } else if (c == '/' && next == '*') {
      i = source.find("*/", i + 2);
      if (i != std::string::npos) i += 2;
    } else if (c == 'R' && next == '"' && (i == 0 || !isWordCharacter(source[i - 1]))) {
      const auto open = source.find('(', i);
      const std::string delimiter = ")" + source.substr(i + 2, open - i - 2) + "\"";
      i = source.find(delimiter, open);
      if (i != std::string::npos) i += delimiter.size();
    } else if (c == '\'') {
      for (++i; i < source.size() && source[i] != '\''; i += source[i] == '\\' ? 2 : 1) {
      }
      ++i;
    } else if (c == '"') {
      const std::size_t open = i;
      std::string text;
      for (++i; i < source.size() && source[i] != '"'; ++i) {
        if (source[i] == '\\' && i + 1 < source.size()) text.push_back(source[i++]);
        text.push_back(source[i]);
      }
      const int use = keyUse(source, open, ++i);
      if (use == 2) {
        found.prefixes.emplace(text, file);
      } else if (use == 1 || looksLikeKey(text)) {
        found.keys.emplace(text, file);
      }
    } else {
      ++i;
    }
  }
}

// Every key the sources use, with the first file that uses it.
SourceKeys keysUsedInSources() {
  SourceKeys found;
  const std::filesystem::path root = std::filesystem::path(CORVANE_TEST_SOURCE_DIR) / "src";
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    const auto extension = entry.path().extension();
    if (!entry.is_regular_file() || (extension != ".cpp" && extension != ".h" && extension != ".mm")) continue;
    collectKeys(readFile(entry.path()), std::filesystem::relative(entry.path(), root).string(), found);
  }
  return found;
}

// The numbers of the {N} placeholders in a text.
std::set<int> placeholders(const std::string& text) {
  std::set<int> found;
  for (std::size_t open = text.find('{'); open != std::string::npos; open = text.find('{', open + 1)) {
    std::size_t end = open + 1;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end]))) ++end;
    if (end > open + 1 && end < text.size() && text[end] == '}')
      found.insert(std::stoi(text.substr(open + 1, end - open - 1)));
  }
  return found;
}

TEST(LocalizationTablesTest, TheExtractorFindsKeysWhereverCodeUsesThem) {
  const std::string source = R"CPP(
    // localized("commented.out") is no use of a key
    auto a = localized("cli.scan.title");
    auto b = localizedFormat("any.prefix.counts", x);
    throw MigrationIssue("error.migration_source_changed", path);
    const char* table[] = {"cleaner.item.npm", "cleaner.item."};
    auto c = relocalized("not.a.call");
    auto d = 'x';
    auto e = "plain text \" with a quote";
    auto f = localized("migration.occupancy.reason_" + name);
    auto g = R"(localized("inside.a.raw.string"))";
  )CPP";
  SourceKeys found;
  collectKeys(source, "example.cpp", found);
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
      if (std::none_of(table.entries().begin(), table.entries().end(),
                       [&](const auto& entry) { return entry.key.rfind(prefix, 0) == 0; })) {
        missing += "\n  " + prefix + "…  (keys completed at run time in " + file + ")";
      }
    }
    EXPECT_TRUE(missing.empty()) << language << " lacks texts for:" << missing;
  }
}

TEST(LocalizationTablesTest, TablesHaveNoRepeatedKeysAndTheSameKeysInEveryLanguage) {
  std::map<std::string, std::set<std::string>> keysByLanguage;
  for (const char* language : kLanguages) {
    std::map<std::string, std::size_t> firstLine;
    const auto table = shippedTable(language);
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
      const auto numbers = placeholders(entry.text);
      EXPECT_EQ(numbers, placeholders(std::string(*reference)))
          << language << ": \"" << entry.key << "\" = \"" << entry.text << "\"";
      // Each text must format with as many arguments as its highest placeholder asks for.
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
