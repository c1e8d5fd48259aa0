#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "fixtures/corvane_binary.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "settings/localization.h"
#include "support/localization_test_support.h"

namespace corvane {
namespace {

// The shipped text of a key in one language, with its arguments filled in.
std::string shipped(const std::string& language, const std::string& key, std::vector<std::string> arguments = {}) {
  const auto table = shippedTable(language);
  const auto text = table.text(key);
  if (!text) throw std::runtime_error(language + " has no " + key);
  return formatLocalizedText(*text, arguments);
}

bool contains(const std::string& haystack, const std::string& needle) {
  return haystack.find(needle) != std::string::npos;
}

class LanguageCommandTest : public ::testing::Test {
 protected:
  CorvaneRun run(const std::vector<std::string>& arguments,
                 std::vector<std::pair<std::string, std::string>> extra = {}) {
    CorvaneRunOptions options;
    options.environment = {{"XDG_CONFIG_HOME", settings_.path()},
                           {"LANGUAGE", ""},
                           {"LC_ALL", ""},
                           {"LC_MESSAGES", ""},
                           {"LANG", "C.UTF-8"},
                           {"CORVANE_RESOURCES", ""}};
    for (auto& pair : extra) options.environment.push_back(std::move(pair));
    return runCorvane(arguments, options);
  }

  std::string savedLanguage() const {
    return nlohmann::json::parse(readFile(settings_.child("corvane/settings.json")))["AppLanguage"];
  }

  TemporaryDirectory settings_;
};

TEST_F(LanguageCommandTest, LangShowsErrorsInTraditionalChineseWithThePath) {
  TemporaryDirectory dir;
  const std::string missing = dir.child("nonexistent");
  const auto result = run({"--lang", "zh-Hant", "scan", missing});
  EXPECT_EQ(result.exitStatus, 1);
  const std::string expected = shipped("zh-Hant", "error.item_not_found", {missing});
  EXPECT_NE(expected, shipped("en", "error.item_not_found", {missing}));
  EXPECT_EQ(result.standardError, expected + "\n");
  EXPECT_TRUE(result.standardOutput.empty());
  // --lang only lasts for its run: nothing about it was saved.
  EXPECT_EQ(savedLanguage(), "system");
  EXPECT_EQ(run({"scan", missing}).standardError, shipped("en", "error.item_not_found", {missing}) + "\n");
}

TEST_F(LanguageCommandTest, AChosenLanguagePersistsAcrossRuns) {
  auto first = run({"language"});
  ASSERT_EQ(first.exitStatus, 0) << first.standardError;
  EXPECT_TRUE(
      contains(first.standardOutput, shipped("en", "cli.language.setting", {shipped("en", "language.name.system")})))
      << first.standardOutput;
  EXPECT_TRUE(contains(first.standardOutput, shipped("en", "cli.language.in_use", {"English"})));

  auto change = run({"language", "zh-Hans"});
  ASSERT_EQ(change.exitStatus, 0) << change.standardError;
  EXPECT_EQ(change.standardOutput, shipped("zh-Hans", "cli.language.changed", {"简体中文"}) + "\n");
  EXPECT_EQ(savedLanguage(), "zh-Hans");

  auto next = run({"language"});
  EXPECT_TRUE(contains(next.standardOutput, shipped("zh-Hans", "cli.language.setting", {"简体中文"})))
      << next.standardOutput;
  EXPECT_TRUE(contains(run({"scan", settings_.child("absent")}).standardError,
                       shipped("zh-Hans", "error.item_not_found", {settings_.child("absent")})));

  // A one-run override is reported as such and leaves the saved choice alone.
  auto override = run({"--lang=en", "language"});
  EXPECT_TRUE(contains(override.standardOutput, shipped("en", "cli.language.setting", {"简体中文"})))
      << override.standardOutput;
  EXPECT_TRUE(contains(override.standardOutput, shipped("en", "cli.language.in_use_this_run", {"English"})));
  EXPECT_EQ(savedLanguage(), "zh-Hans");

  // Back to following the system, whose language then decides.
  auto toSystem = run({"language", "system"});
  ASSERT_EQ(toSystem.exitStatus, 0);
  EXPECT_EQ(toSystem.standardOutput, shipped("en", "cli.language.changed_to_system") + "\n" +
                                         shipped("en", "cli.language.in_use", {"English"}) + "\n");
  EXPECT_EQ(savedLanguage(), "system");
  auto traditional = run({"language"}, {{"LANG", "zh_TW.UTF-8"}});
  EXPECT_TRUE(contains(traditional.standardOutput, shipped("zh-Hant", "cli.language.in_use", {"繁體中文"})))
      << traditional.standardOutput;
}

TEST_F(LanguageCommandTest, UnknownLanguagesAreRefusedInTheCurrentLanguage) {
  ASSERT_EQ(run({"language", "zh-Hant"}).exitStatus, 0);
  auto bad = run({"language", "klingon"});
  EXPECT_EQ(bad.exitStatus, 64);
  EXPECT_EQ(bad.standardError,
            shipped("zh-Hant", "cli.language.invalid", {"klingon", "en, zh-Hans, zh-Hant, system"}) + "\n");
  EXPECT_EQ(savedLanguage(), "zh-Hant");

  auto badOverride = run({"--lang", "fr", "scan", "/"});
  EXPECT_EQ(badOverride.exitStatus, 64);
  EXPECT_TRUE(contains(badOverride.standardError, "“fr”") || contains(badOverride.standardError, "「fr」"))
      << badOverride.standardError;
  EXPECT_TRUE(badOverride.standardOutput.empty());
}

TEST_F(LanguageCommandTest, HelpAndUsageErrorsComeFromTheTables) {
  auto help = run({"--lang", "zh-Hans", "--help"});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_TRUE(contains(help.standardOutput, shipped("zh-Hans", "cli.help.usage") + ":")) << help.standardOutput;
  EXPECT_TRUE(contains(help.standardOutput, shipped("zh-Hans", "cli.language.description")));
  EXPECT_FALSE(contains(help.standardOutput, "Print this help message")) << "the parser's own text leaked";

  auto missing = run({"--lang", "zh-Hant", "scan"});
  EXPECT_EQ(missing.exitStatus, 64);
  EXPECT_EQ(missing.standardError, shipped("zh-Hant", "cli.error.missing_argument", {"path"}) + "\n" +
                                       shipped("zh-Hant", "cli.error.see_help", {"corvane scan --help"}) + "\n");

  auto noValue = run({"--lang", "zh-Hans", "migrate", "item", "--to"});
  EXPECT_EQ(noValue.exitStatus, 64);
  EXPECT_EQ(noValue.standardError, shipped("zh-Hans", "cli.error.missing_value", {"--to"}) + "\n" +
                                       shipped("zh-Hans", "cli.error.see_help", {"corvane migrate --help"}) + "\n");

  // Neither a repeated option nor a value a flag cannot take shows the parser's English.
  auto twice = run({"--lang", "zh-Hant", "migrate", "item", "--to", "a", "--to", "b"});
  EXPECT_TRUE(contains(twice.standardError, shipped("zh-Hant", "cli.error.given_twice", {"--to"})))
      << twice.standardError;
  auto flagValue = run({"--lang", "zh-Hant", "migrate", "item", "--to", "a", "--json=abc"});
  EXPECT_TRUE(contains(flagValue.standardError, shipped("zh-Hant", "cli.error.bad_value", {"--json", "abc"})))
      << flagValue.standardError;

  auto unknown = run({"frobnicate"});
  EXPECT_EQ(unknown.exitStatus, 64);
  EXPECT_TRUE(contains(unknown.standardError, shipped("en", "cli.error.unknown_command", {"frobnicate"})))
      << unknown.standardError;
}

}  // namespace
}  // namespace corvane
