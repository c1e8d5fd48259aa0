#include "cleaner/dev_cleaner_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "cleaner/cleaner_test_support.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/file_system.h"

namespace corvane {
namespace {

using cleaner_test::duBytesBelow;
using cleaner_test::existsNoFollow;
using cleaner_test::FakeDockerAnswer;
using cleaner_test::namesIn;
using cleaner_test::writeSizedFile;

// Generous: only keeps a broken run from hanging the suite.
constexpr auto kLimit = std::chrono::seconds(120);

const std::map<std::string, FakeDockerAnswer> kOneUnusedImage = {
    {"ps|--format|{{.Image}}", {""}},
    {"images|-a|--format|{{.ID}}\t{{.Size}}", {"0123456789ab\t1.25GB\n"}},
    {"system|df|--format|{{.Type}}\t{{.Reclaimable}}", {"Build Cache\t0B\n"}},
};

class DevCleanerManagerTest : public ::testing::Test {
 protected:
  TemporaryDirectory home;
  TemporaryDirectory dockerDirectory;
  MainQueue queue;
  std::vector<CleanerState> states;
  std::vector<Subscription> subscriptions;

  std::unique_ptr<DevCleanerManager> makeManager(std::vector<CleanerDefinition> definitions,
                                                 const std::map<std::string, FakeDockerAnswer>& docker) {
    DevCleanerManager::Configuration configuration;
    configuration.homeDirectory = home.path();
    configuration.definitions = std::move(definitions);
    configuration.dockerCandidates = {cleaner_test::writeFakeDocker(dockerDirectory.path(), docker)};
    auto manager = std::make_unique<DevCleanerManager>(queue, configuration);
    subscriptions.push_back(manager->observe([this, raw = manager.get()](DevCleanerChange change) {
      if (change == DevCleanerChange::state) states.push_back(raw->currentState());
    }));
    return manager;
  }
  void scan(DevCleanerManager& manager) {
    ASSERT_TRUE(manager.startScanning());
    ASSERT_TRUE(queue.runUntil([&] { return manager.currentState() == CleanerState::resultsReady; }, kLimit));
  }
  void clean(DevCleanerManager& manager) {
    ASSERT_TRUE(manager.startCleaning());
    ASSERT_TRUE(queue.runUntil([&] { return manager.currentState() == CleanerState::done; }, kLimit));
  }
  const CleanItem* item(const DevCleanerManager& manager, const std::string& id) {
    const auto& items = manager.items();
    const auto found = std::find_if(items.begin(), items.end(), [&](const CleanItem& each) { return each.id == id; });
    return found == items.end() ? nullptr : &*found;
  }
  std::vector<std::string> ids(const DevCleanerManager& manager) {
    std::vector<std::string> result;
    for (const auto& each : manager.items()) result.push_back(each.id);
    return result;
  }
};

TEST_F(DevCleanerManagerTest, MacHomeIsScannedInOrderWithSafeItemsPreselectedAndCleanedAsEachFolderNeeds) {
  writeSizedFile(home.child("Library/Caches/com.example/c"), 80'000);
  writeSizedFile(home.child("Library/Caches/Homebrew/downloads/bottle"), 300'000);
  writeSizedFile(home.child(".Trash/old folder/photo"), 50'000);
  writeSizedFile(home.child("Library/Developer/Xcode/DerivedData/App-abc/Build/app"), 500'000);
  writeSizedFile(home.child(".npm/_cacache/content/pkg"), 20'000);
  makeDirectories(home.child("Library/WebKit"));  // empty: no item
  auto manager = makeManager(macDefinitions(), kOneUnusedImage);
  EXPECT_EQ(manager->currentState(), CleanerState::idle);
  EXPECT_FALSE(manager->startCleaning()) << "nothing to clean before a scan";

  scan(*manager);
  EXPECT_EQ(ids(*manager), (std::vector<std::string>{"caches", "trash", "npm", "homebrew", "derivedData", "docker"}));
  EXPECT_EQ(item(*manager, "caches")->sizeBytes, duBytesBelow(home.child("Library/Caches")));
  EXPECT_EQ(item(*manager, "docker")->sizeBytes, 1'250'000'000);
  for (const auto& each : manager->items()) {
    EXPECT_EQ(each.isSelected, each.riskLevel == CleanRiskLevel::safe) << each.id;
    EXPECT_EQ(each.status.kind, CleanItemStatus::Kind::pending);
  }

  EXPECT_TRUE(manager->setItemSelection("derivedData", ItemSelection::selected));
  EXPECT_TRUE(manager->setItemSelection("npm", ItemSelection::unselected));
  EXPECT_FALSE(manager->setItemSelection("logs", ItemSelection::selected)) << "no item was found for it";
  const auto expectedCleaned = manager->selectedSize();
  clean(*manager);

  EXPECT_EQ(states, (std::vector<CleanerState>{CleanerState::scanning, CleanerState::resultsReady,
                                               CleanerState::cleaning, CleanerState::done}));
  EXPECT_EQ(manager->totalCleanedSize(), expectedCleaned);
  for (const char* folder : {"Library/Caches", "Library/Developer/Xcode/DerivedData", ".Trash"}) {
    struct stat status {};
    ASSERT_EQ(::lstat(home.child(folder).c_str(), &status), 0) << folder;
    EXPECT_TRUE(S_ISDIR(status.st_mode)) << folder;
    EXPECT_TRUE(namesIn(home.child(folder)).empty()) << folder;
  }
  EXPECT_TRUE(existsNoFollow(home.child(".npm/_cacache/content/pkg"))) << "unselected items stay";
  EXPECT_EQ(item(*manager, "npm")->status.kind, CleanItemStatus::Kind::pending);
  EXPECT_EQ(item(*manager, "caches")->status.kind, CleanItemStatus::Kind::success);
  const auto calls = cleaner_test::fakeDockerCalls(dockerDirectory.path());
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "system|prune|-a|-f"), 0) << "Docker was not selected";
}

TEST_F(DevCleanerManagerTest, OneFailingItemDoesNotStopTheOthers) {
  writeSizedFile(home.child("Library/Logs/app.log"), 10'000);
  auto failing = kOneUnusedImage;
  failing["system|prune|-a|-f"] = {"Error response from daemon", 1};
  auto manager = makeManager(macDefinitions(), failing);
  scan(*manager);
  ASSERT_EQ(ids(*manager), (std::vector<std::string>{"logs", "docker"}));
  manager->setItemSelection("docker", ItemSelection::selected);
  clean(*manager);
  const auto* docker = item(*manager, "docker");
  ASSERT_EQ(docker->status.kind, CleanItemStatus::Kind::failed);
  EXPECT_EQ(docker->status.failure->key, "cleaner.error.docker_command_failed");
  EXPECT_EQ(item(*manager, "logs")->status.kind, CleanItemStatus::Kind::success);
  EXPECT_FALSE(existsNoFollow(home.child("Library/Logs")));
  EXPECT_EQ(manager->totalCleanedSize(), item(*manager, "logs")->sizeBytes);
  const auto calls = cleaner_test::fakeDockerCalls(dockerDirectory.path());
  EXPECT_EQ(calls.back(), "system|prune|-a|-f");
}

// ~/.cache was moved to another disk and a link left behind; four of its folders are items of
// their own, so the cache folder item measures and cleans only the rest.
TEST_F(DevCleanerManagerTest, LinuxCacheFolderSkipsExactlyTheItemsBelowItAndKeepsItsLink) {
  const std::string external = home.child("external-disk/.cache");
  for (const char* cache : {"pip/http", "go-build/00", "JetBrains/IdeaIC/index", "thumbnails/large", "fontconfig"}) {
    writeSizedFile(external + "/" + cache + "/data", 40'000);
  }
  ASSERT_EQ(::symlink(external.c_str(), home.child(".cache").c_str()), 0);
  auto manager = makeManager(linuxDefinitions(), {{"ps|--format|{{.Image}}", {"", 1}}});
  scan(*manager);
  EXPECT_EQ(ids(*manager), (std::vector<std::string>{"user_cache", "thumbnails", "pip", "go_build", "jetbrains"}))
      << "no daemon: no Docker item";
  EXPECT_EQ(item(*manager, "user_cache")->sizeBytes, duBytesBelow(external + "/fontconfig") + 4096);
  for (const auto& each : std::vector<CleanItem>(manager->items())) {
    manager->setItemSelection(each.id, each.id == "user_cache" ? ItemSelection::selected : ItemSelection::unselected);
  }
  clean(*manager);
  struct stat link {};
  ASSERT_EQ(::lstat(home.child(".cache").c_str(), &link), 0);
  EXPECT_TRUE(S_ISLNK(link.st_mode)) << "the link to the other disk stays";
  EXPECT_EQ(namesIn(external), (std::vector<std::string>{"JetBrains", "go-build", "pip", "thumbnails"}));
  for (const char* kept : {"pip/http", "go-build/00", "JetBrains/IdeaIC/index", "thumbnails/large"}) {
    EXPECT_TRUE(existsNoFollow(external + "/" + kept + "/data")) << kept;
  }
}

TEST_F(DevCleanerManagerTest, ARescanReplacesTheRunningScanAndAMissingClientHidesDocker) {
  writeSizedFile(home.child("Library/Logs/a.log"), 9000);
  DevCleanerManager::Configuration configuration;
  configuration.homeDirectory = home.path();
  configuration.definitions = macDefinitions();
  configuration.dockerCandidates = {home.child("no/such/docker")};
  DevCleanerManager manager(queue, configuration);
  int resultsDelivered = 0;
  const Subscription delivered = manager.observe([&](DevCleanerChange change) {
    if (change == DevCleanerChange::state && manager.currentState() == CleanerState::resultsReady) ++resultsDelivered;
  });
  ASSERT_TRUE(manager.startScanning());
  ASSERT_TRUE(manager.startScanning());
  ASSERT_TRUE(queue.runUntil([&] { return manager.currentState() == CleanerState::resultsReady; }, kLimit));
  queue.runPending();
  EXPECT_EQ(resultsDelivered, 1);
  EXPECT_EQ(ids(manager), std::vector<std::string>{"logs"});
  EXPECT_TRUE(manager.startCleaning());
  EXPECT_FALSE(manager.startScanning()) << "no rescan while cleaning";
  ASSERT_TRUE(queue.runUntil([&] { return manager.currentState() == CleanerState::done; }, kLimit));
  EXPECT_TRUE(manager.startScanning()) << "a rescan after cleaning";
  ASSERT_TRUE(queue.runUntil([&] { return manager.currentState() == CleanerState::resultsReady; }, kLimit));
  EXPECT_TRUE(manager.items().empty());

  // Results that arrive once their manager is gone are dropped (ASan shows any use after free).
  writeSizedFile(home.child("Library/Logs/b.log"), 9000);
  auto shortLived = makeManager(macDefinitions(), {});
  ASSERT_TRUE(shortLived->startScanning());
  shortLived.reset();  // waits for the scan thread, whose result may already be queued
  queue.runPending();
}

}  // namespace
}  // namespace corvane
