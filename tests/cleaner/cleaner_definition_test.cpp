#include "cleaner/cleaner_definition.h"

#include <gtest/gtest.h>

#include <set>

#include "fixtures/sample_tree.h"
#include "support/strings_table.h"

namespace corvane {
namespace {

TEST(CleanerDefinitionTest, MacRootsAreCleanedAsTheirKindOfFolderNeeds) {
  for (const auto& definition : macDefinitions()) {
    // The Trash keeps its folder; "Caches" and "DerivedData" come back empty; the rest go.
    for (const auto& path : definition.paths) {
      PathCleaning expected = PathCleaning::remove;
      if (path.ends_with(".Trash")) {
        expected = PathCleaning::emptyInPlace;
      } else if (path.find("Caches") != std::string::npos || path.find("DerivedData") != std::string::npos) {
        expected = PathCleaning::removeAndRecreate;
      }
      EXPECT_EQ(definition.cleaning, expected) << definition.id << ": " << path;
    }
  }
}

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
    const auto table = StringsTable::parse(
        readFile(std::string(CORVANE_TEST_SOURCE_DIR) + "/resources/" + language + ".lproj/Localizable.strings"));
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
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"~/Library/Caches", "/home/ann", "/home/ann/Library/Caches"}, {"~/x", "/home/ann/", "/home/ann/x"},
      {"~", "/home/ann", "/home/ann"}, {"~ann/x", "/home/bob", "~ann/x"}, {"/tmp/~/x", "/home/ann", "/tmp/~/x"},
      {"~/x", "/", "/x"}};
  for (const auto& [path, home, expected] : cases) EXPECT_EQ(expandTilde(path, home), expected) << path;
}

}  // namespace
}  // namespace corvane
