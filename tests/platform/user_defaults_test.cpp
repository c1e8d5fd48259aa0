#include "platform/user_defaults.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "catalogue/catalogue_test_support.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/posix_error.h"
#include "settings/settings_store.h"
#include "support/localization_test_support.h"

namespace corvane {
namespace {

TEST(UserDefaultsTest, WritesCreateThePrivateDirectoryKeepOtherKeysAndFollowALinkedFile) {
  TemporarySettings settings;
  EXPECT_FALSE(platform::readUserDefault("AppLanguage"));
  platform::writeUserDefault("AppLanguage", "zh-Hant");
  EXPECT_EQ(platform::readUserDefault("AppLanguage"), "zh-Hant");
  struct stat status {};
  ASSERT_EQ(::stat((settings.configHome() + "/corvane").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700u);

  // Keys written by someone else (another version, a person) survive our writes untouched.
  writeFile(settings.settingsFile(),
            R"({"AppLanguage": "en", "windowFrame": [1, 2, 3], "nested": {"x": true}, "note": "中文"})");
  platform::writeUserDefault("AppLanguage", "zh-Hans");
  const auto written = nlohmann::json::parse(readFile(settings.settingsFile()));
  EXPECT_EQ(written["AppLanguage"], "zh-Hans");
  EXPECT_EQ(written["windowFrame"], nlohmann::json::array({1, 2, 3}));
  EXPECT_EQ(written["nested"]["x"], true);
  EXPECT_EQ(written["note"], "中文");
  // The temporary file of the atomic write is gone.
  EXPECT_EQ(treeNames(settings.configHome() + "/corvane"), std::set<std::string>{"settings.json"});
  // A value of another type is no string setting.
  EXPECT_FALSE(platform::readUserDefault("windowFrame"));

  // A linked settings file stays a link.
  TemporaryDirectory dotfiles;
  writeFile(dotfiles.child("corvane.json"), R"({"keep": "me"})");
  ASSERT_EQ(::unlink(settings.settingsFile().c_str()), 0);
  ASSERT_EQ(::symlink(dotfiles.child("corvane.json").c_str(), settings.settingsFile().c_str()), 0);
  platform::writeUserDefault("AppLanguage", "zh-Hant");
  EXPECT_TRUE(std::filesystem::is_symlink(settings.settingsFile()));
  const auto linked = nlohmann::json::parse(readFile(dotfiles.child("corvane.json")));
  EXPECT_EQ(linked["AppLanguage"], "zh-Hant");
  EXPECT_EQ(linked["keep"], "me");
}

TEST(UserDefaultsTest, DamagedSettingsAreReportedAndKeptAsideOnTheNextWrite) {
  TemporarySettings settings;
  makeDirectories(settings.configHome() + "/corvane");
  for (const char* damaged : {"{\"AppLanguage\": \"en\"", "[\"AppLanguage\"]", "\"en\"", "", "\xFF\xFE"}) {
    writeFile(settings.settingsFile(), damaged);
    EXPECT_THROW(platform::readUserDefault("AppLanguage"), platform::UserDefaultsCorrupted) << damaged;
    SettingsStore store;
    EXPECT_FALSE(store.string("AppLanguage")) << damaged;
  }
  ASSERT_TRUE(SettingsStore().setString("AppLanguage", "en"));
  EXPECT_EQ(platform::readUserDefault("AppLanguage"), "en");
  EXPECT_EQ(readFile(settings.settingsFile() + ".corrupt"), "\xFF\xFE");
}

TEST(UserDefaultsTest, LocationFollowsXdgAndFallsBackToHome) {
  TemporaryDirectory home;
  ScopedEnvironment homeVariable("HOME", home.path());
  {
    ScopedEnvironment unset("XDG_CONFIG_HOME", std::nullopt);
    EXPECT_EQ(platform::userDefaultsLocation(), home.path() + "/.config/corvane/settings.json");
    platform::writeUserDefault("AppLanguage", "en");
    EXPECT_TRUE(std::filesystem::exists(home.path() + "/.config/corvane/settings.json"));
  }
  // The base directory specification says relative values are to be ignored.
  ScopedEnvironment relative("XDG_CONFIG_HOME", "relative/config");
  EXPECT_EQ(platform::userDefaultsLocation(), home.path() + "/.config/corvane/settings.json");
}

TEST(UserDefaultsTest, SettingsThatCannotBeStoredFailWithThePath) {
  // A file where the settings directory should be: mkdir fails even for root.
  TemporaryDirectory dir;
  writeFile(dir.child("not-a-directory"), "x");
  ScopedEnvironment variable("XDG_CONFIG_HOME", dir.child("not-a-directory"));
  try {
    platform::writeUserDefault("AppLanguage", "en");
    ADD_FAILURE() << "the write succeeded";
  } catch (const platform::PosixError& error) {
    EXPECT_EQ(error.errnoValue(), ENOTDIR);
    EXPECT_EQ(error.path(), dir.child("not-a-directory/corvane"));
  }
  EXPECT_FALSE(SettingsStore().setString("AppLanguage", "en"));
  EXPECT_FALSE(SettingsStore().string("AppLanguage"));
}

}  // namespace
}  // namespace corvane
