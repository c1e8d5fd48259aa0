#include <gtest/gtest.h>

#include "platform/preferred_languages.h"
#include "support/language.h"
#include "support/localization_test_support.h"

namespace corvane {
namespace {

TEST(LanguageTest, RawValuesRoundTripAndNothingElseParses) {
  for (const Language language : kAllLanguages) EXPECT_EQ(parseLanguage(rawValue(language)), language);
  EXPECT_EQ(rawValue(Language::zhHans), "zh-Hans");
  for (const char* raw : {"", "EN", "zh-hans", "zh_Hans", "zh-CN", "fr", "system ", "zhHans"}) {
    EXPECT_FALSE(parseLanguage(raw)) << raw;
  }
}

TEST(LanguageTest, SystemLanguageRuleProducesOnlyTheThreeCodes) {
  const std::pair<const char*, const char*> cases[] = {
      {"zh-Hans", "zh-Hans"},     {"zh-Hans-HK", "zh-Hans"}, {"zh-CN", "zh-Hans"},     {"zh_CN.UTF-8", "zh-Hans"},
      {"zh_CN.GB18030", "zh-Hans"}, {"zh-Hant", "zh-Hant"},   {"zh-Hant-TW", "zh-Hant"}, {"zh-TW", "zh-Hant"},
      {"zh_TW", "zh-Hant"},       {"zh-HK", "zh-Hant"},      {"zh_HK.UTF-8", "zh-Hant"}, {"zh-SG", "en"},
      {"zh_SG.UTF-8", "en"},      {"zh", "en"},              {"ja", "en"},              {"ja_JP.UTF-8", "en"},
      {"en_GB.UTF-8", "en"},      {"C", "en"},               {"C.UTF-8", "en"},         {"POSIX", "en"},
      {"de_DE@euro", "en"},       {"", "en"},
  };
  for (const auto& [preferred, expected] : cases) {
    EXPECT_EQ(systemLanguageCode({preferred}), expected) << preferred;
  }
  EXPECT_EQ(systemLanguageCode({}), "en");
  // Only the most preferred language counts, even when a later one could be served.
  EXPECT_EQ(systemLanguageCode({"ja", "zh-Hans"}), "en");
  EXPECT_EQ(systemLanguageCode({"zh-TW", "en"}), "zh-Hant");
}

TEST(LanguageTest, PreferredLanguagesFollowTheLocaleVariablesInOrder) {
  ScopedEnvironment language("LANGUAGE", std::nullopt);
  ScopedEnvironment all("LC_ALL", std::nullopt);
  ScopedEnvironment messages("LC_MESSAGES", std::nullopt);
  ScopedEnvironment lang("LANG", std::nullopt);
  EXPECT_TRUE(platform::preferredLanguages().empty());

  ScopedEnvironment langSet("LANG", "ja_JP.UTF-8");
  EXPECT_EQ(platform::preferredLanguages(), std::vector<std::string>{"ja_JP.UTF-8"});
  {
    ScopedEnvironment messagesSet("LC_MESSAGES", "zh_TW.UTF-8");
    EXPECT_EQ(platform::preferredLanguages().front(), "zh_TW.UTF-8");
    ScopedEnvironment allSet("LC_ALL", "zh_CN.UTF-8");
    EXPECT_EQ(platform::preferredLanguages().front(), "zh_CN.UTF-8");
    ScopedEnvironment listSet("LANGUAGE", "zh_HK:en_US:en");
    EXPECT_EQ(platform::preferredLanguages(), (std::vector<std::string>{"zh_HK", "en_US", "en"}));
    EXPECT_EQ(systemLanguageCode(platform::preferredLanguages()), "zh-Hant");
  }
  {
    // Empty values do not count; a list of nothing but separators is empty too.
    ScopedEnvironment emptyAll("LC_ALL", "");
    ScopedEnvironment separators("LANGUAGE", "::");
    EXPECT_EQ(platform::preferredLanguages(), std::vector<std::string>{"ja_JP.UTF-8"});
  }
  {
    ScopedEnvironment listSet("LANGUAGE", ":zh_CN:");
    EXPECT_EQ(platform::preferredLanguages(), std::vector<std::string>{"zh_CN"});
  }
}

}  // namespace
}  // namespace corvane
