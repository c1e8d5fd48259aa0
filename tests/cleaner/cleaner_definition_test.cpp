#include "cleaner/cleaner_definition.h"

#include <gtest/gtest.h>

#include <set>

#include "fixtures/sample_tree.h"
#include "support/localization_test_support.h"

namespace corvane {
namespace {

TEST(CleanerDefinitionTest, LinuxCacheFolderExcludesExactlyTheItemsBelowIt) {
  const auto definitions = linuxDefinitions();
  const auto& userCache = definitions.front();
  ASSERT_EQ(userCache.paths, std::vector<std::string>{"~/.cache"});
  EXPECT_EQ(userCache.cleaning, PathCleaning::emptyInPlace);
  std::set<std::string> below;
  for (const auto& definition : definitions) {
    for (const auto& path : definition.paths) {
      if (definition.id != "user_cache" && path.rfind("~/.cache/", 0) == 0) below.insert(path.substr(9));
    }
  }
  EXPECT_EQ(below, std::set<std::string>(userCache.excludedNames.begin(), userCache.excludedNames.end()));
}

// Item keys are put together at run time, so the key scan of the sources cannot see them.
TEST(CleanerDefinitionTest, EveryItemAndDescriptionHasATextInAllThreeLanguages) {
  for (const std::string language : {"en", "zh-Hans", "zh-Hant"}) {
    const auto table = shippedTable(language);
    for (const auto& definitions : {macDefinitions(), linuxDefinitions()}) {
      for (const auto& definition : definitions) {
        for (const auto& key : {definition.nameKey, definition.descKey}) {
          const auto text = table.text(key);
          EXPECT_TRUE(text && !text->empty()) << language << ": " << key;
        }
      }
    }
  }
}

TEST(CleanerDefinitionTest, TildeExpandsOnlyAtTheStart) {
  EXPECT_EQ(expandTilde("~/x", "/home/ann/"), "/home/ann/x");
  EXPECT_EQ(expandTilde("~ann/x", "/home/bob"), "~ann/x");
  EXPECT_EQ(expandTilde("/tmp/~/x", "/home/ann"), "/tmp/~/x");
}

}  // namespace
}  // namespace corvane
