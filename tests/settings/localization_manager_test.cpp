#include "settings/localization_manager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "settings/byte_format.h"
#include "settings/localization.h"
#include "settings/localized_string.h"
#include "settings/system_error_text.h"
#include "support/localization_test_support.h"

namespace corvane {
namespace {

class LocalizationManagerTest : public ::testing::Test {
 protected:
  LocalizationManagerTest() : resources_(tables_.child("resources")) {
    writeStringsTable(resources_, "en",
                      "\"app.title\" = \"Corvane\";\n\"greeting\" = \"Hello\";\n"
                      "\"only.english\" = \"Only in English\";\n\"untranslated\" = \"Untranslated in English\";\n");
    writeStringsTable(resources_, "zh-Hans",
                      "\"app.title\" = \"Corvane\";\n\"greeting\" = \"你好\";\n\"untranslated\" = \"untranslated\";\n");
    writeStringsTable(resources_, "zh-Hant", "\"app.title\" = \"Corvane\";\n\"greeting\" = \"您好\";\n");
  }

  LocalizationManager::Configuration configuration(std::vector<std::string> preferred = {"en_US.UTF-8"}) {
    return {resources_, [preferred] { return preferred; }};
  }

  void saveLanguage(const std::string& raw) {
    makeDirectories(settings_.configHome() + "/corvane");
    writeFile(settings_.settingsFile(), nlohmann::json{{"AppLanguage", raw}}.dump());
  }

  std::string savedRawValue() const {
    return nlohmann::json::parse(readFile(settings_.settingsFile()))["AppLanguage"].get<std::string>();
  }

  TemporaryDirectory tables_;
  std::string resources_;
  TemporarySettings settings_;
};

// Saving and reloading the choice across runs is shown end to end by the language command tests.
TEST_F(LocalizationManagerTest, SavedLanguageWinsAndUnknownValuesCountAsFirstStart) {
  saveLanguage("zh-Hans");
  {
    LocalizationManager manager(configuration({"zh_TW"}));
    EXPECT_EQ(manager.currentLanguage(), Language::zhHans);
    EXPECT_EQ(manager.localized("greeting"), "你好");
  }
  for (const char* unknown : {"klingon", "zh_Hans"}) {
    saveLanguage(unknown);
    LocalizationManager manager(configuration({"zh-CN"}));
    EXPECT_EQ(manager.savedLanguage(), Language::system) << unknown;
    EXPECT_EQ(manager.localized("greeting"), "你好") << unknown;
    EXPECT_EQ(savedRawValue(), "system") << unknown;
  }
}

TEST_F(LocalizationManagerTest, MissingTextsFallBackToEnglishThenToTheKey) {
  saveLanguage("zh-Hans");
  LocalizationManager manager(configuration());
  EXPECT_EQ(manager.localized("only.english"), "Only in English");
  // A table that gives the key as its own text has no translation either.
  EXPECT_EQ(manager.localized("untranslated"), "Untranslated in English");
  EXPECT_EQ(manager.localized("missing.everywhere"), "missing.everywhere");
}

TEST_F(LocalizationManagerTest, BrokenOrAbsentTablesFallBackWithoutFailing) {
  writeStringsTable(resources_, "zh-Hant", "\"greeting\" = \"never closed;\n");
  saveLanguage("zh-Hant");
  {
    CapturedDiagnosticLog log;
    LocalizationManager manager(configuration());
    EXPECT_EQ(manager.localized("greeting"), "Hello");
    EXPECT_EQ(log.count("is malformed and is ignored"), 1);
  }
  {
    // A language directory without its table behaves the same.
    TemporaryDirectory empty;
    writeStringsTable(empty.path(), "en", "\"greeting\" = \"Hello\";\n");
    makeDirectories(empty.child("zh-Hant.lproj"));
    LocalizationManager manager({empty.path(), [] { return std::vector<std::string>{}; }});
    EXPECT_EQ(manager.localized("greeting"), "Hello");
  }
  LocalizationManager noResources({std::nullopt, [] { return std::vector<std::string>{"zh-CN"}; }});
  EXPECT_EQ(noResources.localized("greeting"), "greeting");
}

TEST_F(LocalizationManagerTest, SwitchingNotifiesObserversAndOnlySavedChoicesPersist) {
  saveLanguage("en");
  LocalizationManager manager(configuration());
  std::vector<Language> seen;
  auto subscription = manager.observe([&](Language language) {
    // Observers may look texts up: the switch is complete when they are called.
    seen.push_back(language);
    EXPECT_EQ(manager.currentLanguage(), language);
  });
  LocalizedString greeting("greeting", manager);
  EXPECT_EQ(greeting.value(), "Hello");
  std::vector<std::string> changes;
  greeting.onChange([&](const std::string& text) { changes.push_back(text); });

  manager.useLanguageForThisRun(Language::zhHant);
  EXPECT_EQ(greeting.value(), "您好");
  ASSERT_TRUE(manager.setCurrentLanguage(Language::zhHans));
  EXPECT_EQ(greeting.value(), "你好");
  EXPECT_EQ(seen, (std::vector<Language>{Language::zhHant, Language::zhHans}));
  EXPECT_EQ(changes, (std::vector<std::string>{"您好", "你好"}));

  subscription.reset();
  ASSERT_TRUE(manager.setCurrentLanguage(Language::en));
  EXPECT_EQ(seen.size(), 2u);
  EXPECT_EQ(greeting.value(), "Hello");

  // A language that cannot be saved still switches.
  TemporaryDirectory dir;
  writeFile(dir.child("file"), "x");
  ScopedEnvironment unwritable("XDG_CONFIG_HOME", dir.child("file"));
  EXPECT_FALSE(manager.setCurrentLanguage(Language::zhHant));
  EXPECT_EQ(manager.localized("greeting"), "您好");
}

TEST_F(LocalizationManagerTest, ObserversMayUnsubscribeWhileBeingNotifiedOrAfterTheManagerIsGone) {
  LocalizationManager manager(configuration());
  Subscription first;
  Subscription second;
  int firstCalls = 0;
  int secondCalls = 0;
  // Whichever is called first drops both subscriptions: the other one is not called afterwards.
  first = manager.observe([&](Language) {
    ++firstCalls;
    first.reset();
    second.reset();
  });
  second = manager.observe([&](Language) {
    ++secondCalls;
    first.reset();
    second.reset();
  });
  manager.useLanguageForThisRun(Language::zhHans);
  EXPECT_EQ(firstCalls + secondCalls, 1);
  manager.useLanguageForThisRun(Language::en);
  EXPECT_EQ(firstCalls + secondCalls, 1);
  // A subscription may outlive its manager.
  Subscription outliving;
  {
    LocalizationManager shortLived(configuration());
    outliving = shortLived.observe([](Language) {});
  }
  outliving.reset();
}

TEST_F(LocalizationManagerTest, LookupsFromWorkerThreadsSeeWholeLanguages) {
  LocalizationManager manager(configuration());
  const std::set<std::string> valid = {"Hello", "你好", "您好"};
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> workers;
  for (int i = 0; i < 3; ++i) {
    workers.emplace_back([&] {
      while (!stop) {
        if (!valid.count(manager.localized("greeting"))) ++wrong;
        if (manager.localized("only.english") != "Only in English") ++wrong;
      }
    });
  }
  const Language cycle[] = {Language::zhHans, Language::zhHant, Language::en, Language::system};
  for (int round = 0; round < 200; ++round) manager.useLanguageForThisRun(cycle[round % 4]);
  stop = true;
  for (auto& worker : workers) worker.join();
  EXPECT_EQ(wrong, 0);
}

TEST(LocalizedTextFormattingTest, PlaceholdersArePositionalAndMismatchesShowTheTextAsItIs) {
  EXPECT_EQ(formatLocalizedText("{1} before {0}", {"a", "b"}), "b before a");
  EXPECT_EQ(formatLocalizedText("Copy {0} to {1}", {"a"}), "Copy {0} to {1}");
  EXPECT_EQ(formatLocalizedText("{0}", {"{1} stays"}), "{1} stays");  // a path with braces is not re-expanded
  // Details go into the placeholder, or after a text that has none.
  EXPECT_EQ(localizedWithDetail("error.item_not_found", "/x"), "Nothing exists at /x.");
  const std::string text = localized("migration.preflight.space");
  EXPECT_EQ(localizedWithDetail("migration.preflight.space", "/Volumes/X"), text + ": /Volumes/X");
  EXPECT_EQ(localizedWithDetail("migration.preflight.space", ""), text);
  auto& shared = LocalizationManager::shared();
  const Language before = shared.currentLanguage();
  shared.useLanguageForThisRun(Language::zhHans);
  EXPECT_EQ(localizedWithDetail("migration.preflight.space", "/Volumes/X"), "目标磁盘的可用空间不足：/Volumes/X");
  // A sentence keeps no full stop before the detail's colon, in either script.
  EXPECT_EQ(localizedWithDetail("migration.safety.rolled_back", "/x"), "所有更改已撤销，原件保持不变：/x");
  // What the system said is in the user's language too; uncommon errors keep the library's words.
  EXPECT_EQ(localizedSystemError(ENOSPC), "磁盘已满");
  EXPECT_EQ(localizedSystemError(ENOTRECOVERABLE), std::strerror(ENOTRECOVERABLE));
  EXPECT_EQ(formatByteCount(12), "12 字节");
  EXPECT_EQ(formatByteCount(1'500'000), "1.50 MB");
  shared.useLanguageForThisRun(Language::en);
  EXPECT_EQ(localizedWithDetail("migration.safety.rolled_back", "/x"),
            "All changes were undone; the original is untouched: /x");
  shared.useLanguageForThisRun(before);
}

}  // namespace
}  // namespace corvane
