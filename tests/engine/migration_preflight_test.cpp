// The preflight plan over real items: live and stale sockets probed by the real binary, a git
// monitor socket in a real repository's git directory, FIFOs with and without readers, device
// files; the plan loop with a recording prompter; stopping git; and the last socket check.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <deque>

#include "engine/migration_issue.h"
#include "engine/migration_preflight.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/process.h"
#include "support/localization.h"

namespace corvane {
namespace {

using Choice = MigrationPreflight::Choice;

MigrationPreflight::Services testServices() {
  auto services = MigrationPreflight::defaultServices();
  services.probe = MigrationSocketProbe::probeWith(std::string(corvaneBinaryPath()));
  return services;
}

// Answers from a script and remembers what it was asked.
class ScriptedPrompter : public MigrationPreflightPrompter {
 public:
  explicit ScriptedPrompter(std::deque<Choice> answers, std::function<void(Choice)> onAnswer = {})
      : answers_(std::move(answers)), onAnswer_(std::move(onAnswer)) {}
  Choice choose(const std::vector<MigrationRuntimeBlocker>& blockers) override {
    asked.push_back(blockers);
    if (answers_.empty()) throw std::logic_error("asked more often than expected");
    const Choice answer = answers_.front();
    answers_.pop_front();
    if (onAnswer_) onAnswer_(answer);
    return answer;
  }
  bool authorize(const std::string&) override { return false; }
  void alert(const std::string& title, const std::string& message) override { alerts.emplace_back(title, message); }

  std::vector<std::vector<MigrationRuntimeBlocker>> asked;
  std::vector<std::pair<std::string, std::string>> alerts;

 private:
  std::deque<Choice> answers_;
  std::function<void(Choice)> onAnswer_;
};

void gitInit(const std::string& directory) {
  platform::ProcessRequest request;
  request.executable = "/usr/bin/git";
  request.arguments = {"init", "-q", directory};
  ASSERT_TRUE(platform::runProcess(request).exit.succeeded());
}

std::vector<std::string> keys(const std::vector<MigrationRuntimeBlocker>& blockers) {
  std::vector<std::string> result;
  for (const auto& blocker : blockers) result.push_back(blocker.key + " " + blocker.relativePath);
  return result;
}

TEST(MigrationPreflightTest, BlockersOfARealItem) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Project");
  makeDirectories(item + "/run");
  makeDirectories(item + "/fake-git/.git");
  gitInit(item + "/repo");
  auto server = OccupantProcess::listening(item + "/run", "server.sock", OccupantSocket::stream);
  auto monitor = OccupantProcess::listening(item + "/repo/.git", "fsmonitor--daemon.ipc", OccupantSocket::stream);
  // A monitor-named socket where the directory is no git directory is an ordinary socket.
  auto impostor = OccupantProcess::listening(item + "/fake-git/.git", "fsmonitor--daemon.ipc", OccupantSocket::stream);
  writeFile(item + "/fake-git/.git/HEAD", "ref: refs/heads/main\n");
  writeFile(item + "/fake-git/.git/config", "");
  makeStaleSocket(item + "/run/stale.sock");
  ASSERT_EQ(mkfifo((item + "/idle.fifo").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((item + "/busy.fifo").c_str(), 0600), 0);
  auto fifoReader = OccupantProcess::readingFifo(item + "/busy.fifo");
  const bool root = geteuid() == 0;
  if (root) {
    ASSERT_EQ(mknod((item + "/null").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
  }

  const auto services = testServices();
  const auto manifest = MigrationPreflight::scan(item, {});
  const auto confirmed = MigrationPreflight::idleFifos(item, manifest, services.fifosInUse);
  EXPECT_EQ(confirmed, std::set<std::string>{"idle.fifo"});
  const auto assessment = MigrationPreflight::assess(item, manifest, confirmed, {}, services);

  std::vector<std::string> expected = {"migration.preflight.fifo_busy busy.fifo",
                                       "migration.preflight.socket fake-git/.git/fsmonitor--daemon.ipc"};
  if (root) expected.push_back("migration.preflight.special null");
  expected.push_back("migration.preflight.git_service repo/.git/fsmonitor--daemon.ipc");
  expected.push_back("migration.preflight.socket run/server.sock");
  EXPECT_EQ(keys(assessment.blockers), expected);
  EXPECT_EQ(assessment.inactiveSockets, std::set<std::string>{"run/stale.sock"});
  for (const auto& blocker : assessment.blockers) {
    if (blocker.key == "migration.preflight.git_service") {
      EXPECT_EQ(blocker.gitDirectory, item + "/repo/.git");
    }
    if (blocker.relativePath == "run/server.sock") {
      EXPECT_FALSE(blocker.owners.empty()) << "lsof names the server";
    }
  }
  // A socket the user approved no longer blocks; the monitor and unknown states still would.
  const auto approved = MigrationPreflight::blockers(item, manifest, confirmed,
                                                     {"run/server.sock", "repo/.git/fsmonitor--daemon.ipc"}, services);
  EXPECT_EQ(std::count_if(approved.begin(), approved.end(),
                          [](const auto& blocker) { return blocker.relativePath == "run/server.sock"; }),
            0);
  EXPECT_EQ(std::count_if(approved.begin(), approved.end(),
                          [](const auto& blocker) { return blocker.key == "migration.preflight.git_service"; }),
            1);
}

TEST(MigrationPreflightTest, RetryAfterTheServerQuitGivesAPlanWithoutTheStaleSocket) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  makeDirectories(item);
  writeFile(item + "/data.txt", "data");
  auto server = std::make_unique<OccupantProcess>(OccupantProcess::listening(item, "app.sock", OccupantSocket::stream));
  ASSERT_EQ(mkfifo((item + "/idle.fifo").c_str(), 0600), 0);
  // The user quits the server (its socket file stays behind) and says retry.
  ScriptedPrompter prompter({Choice::retry}, [&](Choice) { server.reset(); });
  int visited = 0;
  const auto plan = MigrationPreflight::plan(item, [&](const std::string&) { ++visited; }, prompter, testServices());
  ASSERT_EQ(prompter.asked.size(), 1u);
  EXPECT_EQ(keys(prompter.asked[0]), std::vector<std::string>{"migration.preflight.socket app.sock"});
  EXPECT_EQ(plan.inactiveSockets, std::set<std::string>{"app.sock"});
  EXPECT_EQ(plan.confirmedFifos, std::set<std::string>{"idle.fifo"});
  EXPECT_TRUE(plan.approvedSockets.empty());
  EXPECT_EQ(plan.manifest.size(), 4u);
  EXPECT_EQ(visited, 8) << "two scans of four entries";
}

TEST(MigrationPreflightTest, LaterDefersWithoutTouchingTheItem) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  makeDirectories(item);
  auto server = OccupantProcess::listening(item, "app.sock", OccupantSocket::stream);
  const auto before = MigrationPreflight::scan(item, {});
  ScriptedPrompter prompter({Choice::later});
  try {
    MigrationPreflight::plan(item, {}, prompter, testServices());
    FAIL() << "later must defer";
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.key(), "migration.preflight.deferred");
  }
  EXPECT_EQ(MigrationPreflight::scan(item, {}), before);
}

TEST(MigrationPreflightTest, AFifoStillInUseAfterTheAnswerEndsThePlan) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  makeDirectories(item);
  ASSERT_EQ(mkfifo((item + "/queue").c_str(), 0600), 0);
  auto reader = OccupantProcess::readingFifo(item + "/queue");
  ScriptedPrompter prompter({Choice::retry});
  try {
    MigrationPreflight::plan(item, {}, prompter, testServices());
    FAIL() << "a FIFO that stays in use must end the plan";
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.key(), "migration.preflight.fifo_busy");
    EXPECT_EQ(issue.detail(), item + "/queue");
  }
  EXPECT_EQ(prompter.asked.size(), 1u);
}

TEST(MigrationPreflightTest, StopEndsTheGitMonitorAndTheNextScanPasses) {
  // This git cannot run its monitor daemon on Linux, so a child serves the socket in a real
  // repository's git directory and the runner plays git's part: "stop" makes the daemon quit
  // (it removes its socket), "status" reports that nothing watches any more.
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Work");
  gitInit(item);
  const std::string gitDirectory = item + "/.git";
  auto daemon = std::make_unique<OccupantProcess>(
      OccupantProcess::listening(gitDirectory, "fsmonitor--daemon.ipc", OccupantSocket::stream));
  std::vector<std::string> commands;
  auto services = testServices();
  services.run = [&](const std::string& executable, const std::vector<std::string>& arguments,
                     const std::string& workingDirectory) {
    std::string command = executable;
    for (const auto& argument : arguments) command += " " + argument;
    commands.push_back(command + " @" + workingDirectory);
    if (arguments.back() == "stop") daemon->stop(SIGTERM);
    return MigrationPreflight::ToolResult{arguments.back() == "stop" ? 0 : 1, ""};
  };
  ScriptedPrompter prompter({Choice::stop});
  const auto plan = MigrationPreflight::plan(item, {}, prompter, services);
  ASSERT_EQ(prompter.asked.size(), 1u);
  ASSERT_EQ(prompter.asked[0].size(), 1u);
  EXPECT_EQ(prompter.asked[0][0].key, "migration.preflight.git_service");
  EXPECT_EQ(commands, (std::vector<std::string>{
                          "/usr/bin/git --git-dir=. fsmonitor--daemon stop @" + gitDirectory,
                          "/usr/bin/git --git-dir=. fsmonitor--daemon status @" + gitDirectory,
                      }));
  EXPECT_FALSE(plan.manifest.contains(".git/fsmonitor--daemon.ipc"));
  EXPECT_TRUE(prompter.alerts.empty());
}

TEST(MigrationPreflightTest, AMonitorThatWillNotStopFailsTheItemAfterAnAlert) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Work");
  gitInit(item);
  auto daemon = OccupantProcess::listening(item + "/.git", "fsmonitor--daemon.ipc", OccupantSocket::stream);
  // The real git: here it cannot stop a monitor (it has no daemon on this platform) and says so.
  ScriptedPrompter prompter({Choice::stop});
  try {
    MigrationPreflight::plan(item, {}, prompter, testServices());
    FAIL() << "a monitor that keeps running must fail the item";
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.key(), "migration.preflight.stop_failed");
    EXPECT_EQ(issue.detail(), item);
  }
  ASSERT_EQ(prompter.alerts.size(), 1u);
  EXPECT_EQ(prompter.alerts[0].first, localized("migration.preflight.title"));
  EXPECT_EQ(prompter.alerts[0].second, localized("migration.preflight.stop_retry_message"));

  // A stop that reports success while the daemon keeps its socket is not believed either.
  const std::vector<MigrationRuntimeBlocker> blockers = {
      {"migration.preflight.git_service", ".git/fsmonitor--daemon.ipc", {}, item + "/.git"}};
  auto claimsSuccess = [](const std::string&, const std::vector<std::string>& arguments, const std::string&) {
    return MigrationPreflight::ToolResult{arguments.back() == "stop" ? 0 : 1, ""};
  };
  EXPECT_THROW(MigrationPreflight::stopGit(blockers, claimsSuccess), MigrationIssue);
  auto stillWatching = [](const std::string&, const std::vector<std::string>&, const std::string&) {
    return MigrationPreflight::ToolResult{0, "fsmonitor-daemon is watching"};
  };
  EXPECT_THROW(MigrationPreflight::stopGit(blockers, stillWatching), MigrationIssue);
}

TEST(MigrationPreflightTest, ToolsRunWithoutOptionalLocksOrInheritedGitVariables) {
  TemporaryDirectory scratch;
  setenv("GIT_DIR", "/elsewhere/.git", 1);
  setenv("GIT_OPTIONAL_LOCKS", "1", 1);
  const auto result = MigrationPreflight::runTool("/usr/bin/env", {}, scratch.path());
  unsetenv("GIT_DIR");
  unsetenv("GIT_OPTIONAL_LOCKS");
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.output.find("GIT_OPTIONAL_LOCKS=0\n"), std::string::npos) << result.output;
  EXPECT_EQ(result.output.find("GIT_DIR="), std::string::npos) << result.output;
  try {
    MigrationPreflight::runTool("/nonexistent/git", {"status"}, scratch.path());
    FAIL() << "a tool that cannot start is a failure";
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.key(), "migration.preflight.tool_failed");
  }
}

TEST(MigrationPreflightTest, GitDirectoryNeedsHeadConfigAndObjectsWithoutFollowingLinks) {
  TemporaryDirectory scratch;
  gitInit(scratch.child("repo"));
  const std::string gitDirectory = scratch.child("repo/.git");
  EXPECT_EQ(MigrationPreflight::gitDirectory(gitDirectory + "/fsmonitor--daemon.ipc"), gitDirectory);
  EXPECT_FALSE(MigrationPreflight::gitDirectory(gitDirectory + "/other.ipc"));
  makeDirectories(scratch.child("linked"));
  writeFile(scratch.child("linked/HEAD"), "ref: refs/heads/main\n");
  writeFile(scratch.child("linked/config"), "");
  ASSERT_EQ(symlink((gitDirectory + "/objects").c_str(), scratch.child("linked/objects").c_str()), 0);
  EXPECT_FALSE(MigrationPreflight::gitDirectory(scratch.child("linked/fsmonitor--daemon.ipc")))
      << "objects reached through a link does not make a git directory";
}

TEST(MigrationPreflightTest, TheLastCheckFailsWhenASocketCameAlive) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  makeDirectories(item);
  makeStaleSocket(item + "/app.sock");
  const auto services = testServices();
  const auto manifest = MigrationPreflight::scan(item, {});
  const auto assessment = MigrationPreflight::assess(item, manifest, {}, {}, services);
  ASSERT_EQ(assessment.inactiveSockets, std::set<std::string>{"app.sock"});
  EXPECT_NO_THROW(MigrationPreflight::requireRuntimeIdle(item, manifest, assessment.inactiveSockets, services.probe));

  // A server starts on the same name between the plan and the switch.
  ASSERT_EQ(unlink((item + "/app.sock").c_str()), 0);
  auto server = OccupantProcess::listening(item, "app.sock", OccupantSocket::stream);
  try {
    MigrationPreflight::requireRuntimeIdle(item, manifest, assessment.inactiveSockets, services.probe);
    FAIL() << "a live socket must stop the switch";
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.key(), "migration.preflight.runtime");
    EXPECT_EQ(issue.detail(), item + "/app.sock");
  }
  auto unknownProbe = [](const std::string&) { return MigrationSocketProbe::Observation{}; };
  EXPECT_THROW(MigrationPreflight::requireRuntimeIdle(item, manifest, {}, unknownProbe), MigrationIssue);
}

TEST(MigrationPreflightTest, QuestionNamesTheBlockersAndOffersStopRetryLater) {
  const std::vector<MigrationRuntimeBlocker> blockers = {
      {"migration.preflight.socket", "run/db.sock", {"postgres", "psql"}, std::nullopt},
      {"migration.preflight.git_service", ".git/fsmonitor--daemon.ipc", {}, "/work/.git"},
      {"migration.preflight.fifo_busy", "queue", {}, std::nullopt},
  };
  const auto question = MigrationPreflight::question(blockers);
  EXPECT_EQ(question.title, localized("migration.preflight.title"));
  for (const auto& part : {localized("migration.preflight.summary"), localized("migration.preflight.message_sockets"),
                           localized("migration.preflight.message_git"),
                           localizedFormat("migration.preflight.used_by", "run/db.sock", "postgres, psql"),
                           localizedWithDetail("migration.preflight.git_service", "/work/.git"),
                           localizedWithDetail("migration.preflight.fifo_busy", "queue")}) {
    EXPECT_NE(question.message.find(part), std::string::npos) << part;
  }
  EXPECT_EQ(question.buttons, (std::vector<std::string>{localized("migration.preflight.stop"),
                                                        localized("migration.preflight.retry"),
                                                        localized("migration.preflight.later")}));
  const auto onlyFifo = MigrationPreflight::question({blockers[2]});
  EXPECT_EQ(onlyFifo.message.find(localized("migration.preflight.message_sockets")), std::string::npos);
}

}  // namespace
}  // namespace corvane
