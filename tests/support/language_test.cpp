#include "support/language.h"

#include <gtest/gtest.h>

#include "platform/preferred_languages.h"
#include "support/localization_test_support.h"

namespace corvane {
namespace {

TEST(LanguageTest, SavedValuesParseExactlyAndTheSystemLanguageMapsToOneOfTheThree) {
  for (const Language language : kAllLanguages) EXPECT_EQ(parseLanguage(rawValue(language)), language);
  for (const char* raw : {"zh-hans", "zh_Hans", "zh-CN", "fr"}) EXPECT_FALSE(parseLanguage(raw)) << raw;
  const std::pair<const char*, const char*> cases[] = {
      {"zh-Hans", "zh-Hans"},
      {"zh-Hant-TW", "zh-Hant"},
      {"zh_CN.UTF-8", "zh-Hans"},
      {"zh-HK", "zh-Hant"},
      {"zh_SG.UTF-8", "en"},
      {"ja_JP.UTF-8", "en"},
      {"C", "en"},
  };
  for (const auto& [preferred, expected] : cases) EXPECT_EQ(systemLanguageCode({preferred}), expected) << preferred;
  EXPECT_EQ(systemLanguageCode({"ja", "zh-Hans"}), "en") << "only the most preferred language counts";
}

TEST(LanguageTest, LcAllWinsOverLangAndLanguageListsSeveral) {
  ScopedEnvironment language("LANGUAGE", std::nullopt);
  ScopedEnvironment all("LC_ALL", std::nullopt);
  ScopedEnvironment messages("LC_MESSAGES", std::nullopt);
  ScopedEnvironment lang("LANG", "ja_JP.UTF-8");
  EXPECT_EQ(platform::preferredLanguages(), std::vector<std::string>{"ja_JP.UTF-8"});
  ScopedEnvironment allSet("LC_ALL", "zh_CN.UTF-8");
  EXPECT_EQ(platform::preferredLanguages().front(), "zh_CN.UTF-8");
  ScopedEnvironment listSet("LANGUAGE", "zh_HK:en_US:en");
  EXPECT_EQ(systemLanguageCode(platform::preferredLanguages()), "zh-Hant");
}

}  // namespace
}  // namespace corvane
