// The `corvane clean` command driven as a user would, with a temporary home directory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "cleaner/cleaner_test_support.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/file_access.h"
#include "platform/process.h"
#include "support/shell_quote.h"

namespace corvane {
namespace {

using cleaner_test::existsNoFollow;
using cleaner_test::writeSizedFile;

class CleanCommandTest : public ::testing::Test {
 protected:
  TemporaryDirectory home;

  void SetUp() override {
    writeSizedFile(home.child(".cache/app/blobs/one"), 120'000);
    writeSizedFile(home.child(".cache/go-build/ab/obj"), 60'000);
  }
  std::vector<std::pair<std::string, std::string>> environment() const {
    return {{"HOME", home.path()}, {"LANG", "C"}, {"LC_ALL", "C"}, {"XDG_CONFIG_HOME", home.child(".config")}};
  }
  CorvaneRun clean(std::vector<std::string> arguments, std::optional<unsigned> user = {}) {
    arguments.insert(arguments.begin(), "clean");
    // A pipe, not a terminal: its "y" must never count as an answer.
    return runCorvane(arguments, {.asUser = user, .environment = environment(), .standardInput = "y\n"});
  }
  static const nlohmann::json* itemWithId(const nlohmann::json& report, const std::string& id) {
    for (const auto& item : report["items"]) {
      if (item["id"] == id) return &item;
    }
    return nullptr;
  }
  void expectNothingRemoved() {
    EXPECT_TRUE(existsNoFollow(home.child(".cache/app/blobs/one")));
    EXPECT_TRUE(existsNoFollow(home.child(".cache/go-build/ab/obj")));
  }
};

TEST_F(CleanCommandTest, ListingDryRunAndRefusalsRemoveNothing) {
  const auto text = clean({});
  ASSERT_EQ(text.exitStatus, 0) << text.standardError;
  const auto& out = text.standardOutput;
  EXPECT_NE(out.find("[x] Cache Folder"), std::string::npos) << out;
  EXPECT_NE(out.find("[ ] Go Build Cache"), std::string::npos) << out;

  const auto json = clean({"--json"});
  ASSERT_EQ(json.exitStatus, 0) << json.standardError;
  const auto report = nlohmann::json::parse(json.standardOutput);
  EXPECT_EQ(report["state"], "resultsReady");
  const auto* cache = itemWithId(report, "user_cache");
  const auto* goBuild = itemWithId(report, "go_build");
  ASSERT_TRUE(cache && goBuild) << json.standardOutput;
  EXPECT_EQ((*cache)["isSelected"], true);
  EXPECT_EQ((*goBuild)["isSelected"], false);
  EXPECT_GE((*cache)["sizeBytes"].get<std::int64_t>(), 120'000);

  // A dry run shows what would go and keeps it.
  const auto dryText = clean({"--all-safe", "--dry-run"});
  ASSERT_EQ(dryText.exitStatus, 0) << dryText.standardError;
  EXPECT_NE(dryText.standardOutput.find(home.child(".cache")), std::string::npos) << dryText.standardOutput;
  EXPECT_EQ(dryText.standardOutput.find("go-build"), std::string::npos) << "not selected, not listed";
  const auto dryJson = clean({"--select", "go_build", "--dry-run", "--json"});
  ASSERT_EQ(dryJson.exitStatus, 0) << dryJson.standardError;
  const auto dryReport = nlohmann::json::parse(dryJson.standardOutput);
  EXPECT_EQ(dryReport["dryRun"], true);
  EXPECT_EQ((*itemWithId(dryReport, "go_build"))["isSelected"], true);
  EXPECT_EQ((*itemWithId(dryReport, "user_cache"))["isSelected"], false);
  EXPECT_EQ(dryReport["totalCleanedSize"], 0);

  // Without a terminal or --yes it refuses; unknown ids are usage errors.
  const auto refused = clean({"--all-safe"});
  EXPECT_EQ(refused.exitStatus, 64);
  EXPECT_NE(refused.standardError.find("--yes"), std::string::npos) << refused.standardError;
  const auto unknown = clean({"--select", "go_build,bogus", "--yes"});
  EXPECT_EQ(unknown.exitStatus, 64);
  EXPECT_NE(unknown.standardError.find("bogus"), std::string::npos) << unknown.standardError;
  expectNothingRemoved();
}

TEST_F(CleanCommandTest, SelectedItemsAreCleanedWithProgressAndTheReclaimedTotal) {
  const auto json = clean({"--select", "go_build", "--yes", "--json"});
  ASSERT_EQ(json.exitStatus, 0) << json.standardError;
  const auto report = nlohmann::json::parse(json.standardOutput);
  EXPECT_EQ(report["state"], "done");
  EXPECT_EQ((*itemWithId(report, "go_build"))["status"], "success");
  EXPECT_EQ((*itemWithId(report, "user_cache"))["status"], "pending");
  EXPECT_EQ(report["totalCleanedSize"], (*itemWithId(report, "go_build"))["sizeBytes"]);
  EXPECT_TRUE(existsNoFollow(home.child(".cache/go-build")));
  EXPECT_FALSE(existsNoFollow(home.child(".cache/go-build/ab")));
  EXPECT_TRUE(existsNoFollow(home.child(".cache/app/blobs/one")));

  const auto text = clean({"--all-safe", "--yes"});
  ASSERT_EQ(text.exitStatus, 0) << text.standardError;
  EXPECT_NE(text.standardOutput.find("✓ Cache Folder"), std::string::npos) << text.standardOutput;
  EXPECT_NE(text.standardOutput.find("Reclaimed"), std::string::npos) << text.standardOutput;
  EXPECT_FALSE(existsNoFollow(home.child(".cache/app")));
  EXPECT_TRUE(existsNoFollow(home.child(".cache")));
}

TEST_F(CleanCommandTest, OnATerminalItAsksAndOnlyYesCleans) {
  // `script` gives the command a real pseudo-terminal and types the answer into it.
  if (!platform::isExecutable("/usr/bin/script")) GTEST_SKIP() << "needs script(1) from util-linux for a terminal";
  auto onTerminal = [&](const std::string& answer) {
    return runCorvane({"clean", "--all-safe"},
                      {.environment = environment(), .standardInput = answer + "\n", .onTerminal = true});
  };
  const auto declined = onTerminal("n");
  EXPECT_EQ(declined.exitStatus, 0) << declined.standardOutput;
  EXPECT_NE(declined.standardOutput.find("[y/N]"), std::string::npos) << declined.standardOutput;
  EXPECT_NE(declined.standardOutput.find("Nothing was removed"), std::string::npos) << declined.standardOutput;
  expectNothingRemoved();
  const auto accepted = onTerminal("yes");
  EXPECT_EQ(accepted.exitStatus, 0) << accepted.standardOutput;
  EXPECT_NE(accepted.standardOutput.find("Reclaimed"), std::string::npos) << accepted.standardOutput;
  EXPECT_FALSE(existsNoFollow(home.child(".cache/app")));
  EXPECT_TRUE(existsNoFollow(home.child(".cache/go-build/ab/obj"))) << "a warning item is not in --all-safe";
}

TEST_F(CleanCommandTest, AnItemThatCannotBeCleanedCompletelyFailsTheRun) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run the command as an unprivileged user (nobody)";
  ::chmod(home.path().c_str(), 0755);
  writeFile(home.child(".cache/app/closed/secret"), "s");
  cleaner_test::giveToNobody(home.path());
  ::chmod(home.child(".cache/app/closed").c_str(), 0);
  const auto run = clean({"--all-safe", "--yes"}, cleaner_test::kNobody);
  EXPECT_EQ(run.exitStatus, 1) << run.standardOutput << run.standardError;
  EXPECT_NE(run.standardOutput.find("✗ Cache Folder"), std::string::npos) << run.standardOutput;
  EXPECT_NE(run.standardOutput.find(home.child(".cache/app/closed")), std::string::npos) << run.standardOutput;
  EXPECT_NE(run.standardError.find("could not be cleaned completely"), std::string::npos) << run.standardError;
  EXPECT_FALSE(existsNoFollow(home.child(".cache/app/blobs"))) << "the rest of the item went";
  ::chmod(home.child(".cache/app/closed").c_str(), 0700);
}

}  // namespace
}  // namespace corvane
