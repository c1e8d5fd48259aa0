#include "cleaner/cleaner_definition.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>

namespace corvane {
namespace {

std::set<std::string> keysOf(const std::string& language) {
  std::ifstream in(std::string(CORVANE_TEST_SOURCE_DIR) + "/resources/" + language + ".lproj/Localizable.strings");
  std::set<std::string> keys;
  // Lines of the form "key" = "text"; with a text that is not empty.
  for (std::string text; std::getline(in, text);) {
    const auto keyEnd = text.find("\" = \"");
    if (text.rfind("\"", 0) != 0 || keyEnd == std::string::npos || !text.ends_with("\";")) continue;
    if (text.size() <= keyEnd + 7) continue;  // an empty text
    keys.insert(text.substr(1, keyEnd - 1));
  }
  return keys;
}

std::vector<std::string> idsOf(const std::vector<CleanerDefinition>& definitions) {
  std::vector<std::string> ids;
  for (const auto& definition : definitions) ids.push_back(definition.id);
  return ids;
}

TEST(CleanerDefinitionTest, MacTableKeepsItsOrderPathsKeysAndHowEachRootIsCleaned) {
  const auto definitions = macDefinitions();
  EXPECT_EQ(idsOf(definitions),
            (std::vector<std::string>{"caches", "logs", "trash", "webkit", "app_support_caches", "npm", "cargo",
                                      "jetbrains", "homebrew", "swiftpm", "derivedData", "deviceSupport", "simulator",
                                      "mail", "docker"}));
  for (const auto& definition : definitions) {
    SCOPED_TRACE(definition.id);
    // A root ending in ".Trash" keeps its folder; one whose path holds "Caches" or
    // "DerivedData" is recreated; the others are removed.
    for (const auto& path : definition.paths) {
      PathCleaning expected = PathCleaning::remove;
      if (path.ends_with(".Trash")) {
        expected = PathCleaning::emptyInPlace;
      } else if (path.find("Caches") != std::string::npos || path.find("DerivedData") != std::string::npos) {
        expected = PathCleaning::removeAndRecreate;
      }
      EXPECT_EQ(definition.cleaning, expected) << path;
    }
  }
  EXPECT_EQ(definitions[10].nameKey, "cleaner.item.derived_data");
  EXPECT_EQ(definitions[11].descKey, "cleaner.desc.device_support");
  EXPECT_EQ(definitions[6].paths, (std::vector<std::string>{"~/.cargo/registry/cache", "~/.cargo/registry/src"}));
  EXPECT_EQ(definitions[13].paths.front(), "~/Library/Containers/com.apple.mail/Data/Library/Mail Downloads");
  const auto& docker = definitions.back();
  EXPECT_TRUE(docker.paths.empty());
  EXPECT_EQ(docker.customCommand, "docker");
  EXPECT_EQ(docker.customArgs, (std::vector<std::string>{"system", "prune", "-a", "-f"}));
  EXPECT_EQ(docker.riskLevel, CleanRiskLevel::warning);
  EXPECT_EQ(docker.category, CleanCategoryType::largeFiles);
}

TEST(CleanerDefinitionTest, LinuxTableSplitsTheCacheFolderWithoutCountingAnythingTwice) {
  const auto definitions = linuxDefinitions();
  EXPECT_EQ(idsOf(definitions), (std::vector<std::string>{"user_cache", "trash", "thumbnails", "npm", "pip", "cargo",
                                                          "go_build", "jetbrains", "docker"}));
  const auto& userCache = definitions.front();
  EXPECT_EQ(userCache.paths, std::vector<std::string>{"~/.cache"});
  EXPECT_EQ(userCache.cleaning, PathCleaning::emptyInPlace);
  // Every other definition below ~/.cache is excluded from it by its own name.
  std::set<std::string> below;
  for (const auto& definition : definitions) {
    for (const auto& path : definition.paths) {
      if (definition.id != "user_cache" && path.rfind("~/.cache/", 0) == 0) below.insert(path.substr(9));
    }
  }
  EXPECT_EQ(below, std::set<std::string>(userCache.excludedNames.begin(), userCache.excludedNames.end()));
  EXPECT_EQ(definitions[1].paths,
            (std::vector<std::string>{"~/.local/share/Trash/files", "~/.local/share/Trash/info"}));
  EXPECT_EQ(definitions[1].cleaning, PathCleaning::emptyInPlace);
  EXPECT_TRUE(definitions.back().isDocker());
}

TEST(CleanerDefinitionTest, EveryItemAndDescriptionHasATextInAllThreeLanguages) {
  for (const std::string language : {"en", "zh-Hans", "zh-Hant"}) {
    const auto keys = keysOf(language);
    ASSERT_FALSE(keys.empty()) << language;
    for (const auto& table : {macDefinitions(), linuxDefinitions()}) {
      for (const auto& definition : table) {
        EXPECT_TRUE(keys.count(definition.nameKey)) << language << ": " << definition.nameKey;
        EXPECT_TRUE(keys.count(definition.descKey)) << language << ": " << definition.descKey;
      }
    }
    for (const char* key : {"cleaner.category.system", "cleaner.category.development", "cleaner.category.large_files",
                            "cleaner.warning.rebuild", "cleaner.error.docker_not_installed",
                            "cleaner.error.docker_command_failed", "cleaner.error.remove_failed"}) {
      EXPECT_TRUE(keys.count(key)) << language << ": " << key;
    }
  }
}

TEST(CleanerDefinitionTest, TildeExpandsOnlyAtTheStart) {
  EXPECT_EQ(expandTilde("~/Library/Caches", "/home/ann"), "/home/ann/Library/Caches");
  EXPECT_EQ(expandTilde("~/x", "/home/ann/"), "/home/ann/x");
  EXPECT_EQ(expandTilde("~", "/home/ann"), "/home/ann");
  EXPECT_EQ(expandTilde("~ann/x", "/home/bob"), "~ann/x");
  EXPECT_EQ(expandTilde("/tmp/~/x", "/home/ann"), "/tmp/~/x");
  EXPECT_EQ(expandTilde("~/x", "/"), "/x");
}

}  // namespace
}  // namespace corvane
