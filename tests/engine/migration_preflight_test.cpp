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

#include "engine/migration_preflight.h"
#include "engine/migration_test_support.h"
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

// Answers from a script, runs `onAnswer` with each answer and remembers what it was asked.
struct ScriptedPrompter : MigrationPreflightPrompter {
  explicit ScriptedPrompter(std::deque<Choice> script, std::function<void()> onAnswer = {})
      : answers(std::move(script)), onAnswer(std::move(onAnswer)) {}
  Choice choose(const std::vector<MigrationRuntimeBlocker>& blockers) override {
    asked.push_back(keys(blockers));
    if (answers.empty()) throw std::logic_error("asked more often than expected");
    const Choice answer = answers.front();
    answers.pop_front();
    if (onAnswer) onAnswer();
    return answer;
  }
  bool authorize(const std::string&) override { return false; }
  void alert(const std::string& title, const std::string& message) override { alerts.emplace_back(title, message); }
  static std::vector<std::string> keys(const std::vector<MigrationRuntimeBlocker>& blockers) {
    std::vector<std::string> result;
    for (const auto& blocker : blockers) result.push_back(blocker.key + " " + blocker.relativePath);
    return result;
  }

  std::deque<Choice> answers;
  std::function<void()> onAnswer;
  std::vector<std::vector<std::string>> asked;
  std::vector<std::pair<std::string, std::string>> alerts;
};

void gitInit(const std::string& directory) {
  platform::ProcessRequest request;
  request.executable = "/usr/bin/git";
  request.arguments = {"init", "-q", directory};
  ASSERT_TRUE(platform::runProcess(request).exit.succeeded());
}

TEST(MigrationPreflightTest, BlockersOfARealItem) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Project");
  makeDirectories(item + "/run");
  gitInit(item + "/repo");
  auto server = OccupantProcess::listening(item + "/run", "server.sock", OccupantSocket::stream);
  auto monitor = OccupantProcess::listening(item + "/repo/.git", "fsmonitor--daemon.ipc", OccupantSocket::stream);
  // A monitor-named socket where the directory is no git directory is an ordinary socket.
  writeFile(item + "/fake-git/.git/HEAD", "ref: refs/heads/main\n");
  writeFile(item + "/fake-git/.git/config", "");
  auto impostor = OccupantProcess::listening(item + "/fake-git/.git", "fsmonitor--daemon.ipc", OccupantSocket::stream);
  makeStaleSocket(item + "/run/stale.sock");
  ASSERT_EQ(mkfifo((item + "/idle.fifo").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((item + "/busy.fifo").c_str(), 0600), 0);
  auto fifoReader = OccupantProcess::readingFifo(item + "/busy.fifo");
  const bool root = geteuid() == 0;
  if (root) { ASSERT_EQ(mknod((item + "/null").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0); }

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
  EXPECT_EQ(ScriptedPrompter::keys(assessment.blockers), expected);
  EXPECT_EQ(assessment.inactiveSockets, std::set<std::string>{"run/stale.sock"});
  for (const auto& blocker : assessment.blockers) {
    if (blocker.key == "migration.preflight.git_service") { EXPECT_EQ(blocker.gitDirectory, item + "/repo/.git"); }
    if (blocker.relativePath == "run/server.sock") { EXPECT_FALSE(blocker.owners.empty()) << "lsof names the server"; }
  }
  // A socket the user approved no longer blocks; the git monitor still does.
  auto approved = ScriptedPrompter::keys(MigrationPreflight::blockers(
      item, manifest, confirmed, {"run/server.sock", "repo/.git/fsmonitor--daemon.ipc"}, services));
  expected.pop_back();
  EXPECT_EQ(approved, expected);
}

TEST(MigrationPreflightTest, PlanLoopRetriesDefersAndStopsOnAFifoThatStaysBusy) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  writeFile(item + "/data.txt", "data");
  auto server = std::make_unique<OccupantProcess>(OccupantProcess::listening(item, "app.sock", OccupantSocket::stream));
  ASSERT_EQ(mkfifo((item + "/idle.fifo").c_str(), 0600), 0);
  const auto before = MigrationPreflight::scan(item, {});

  ScriptedPrompter deferring({Choice::later});
  EXPECT_EQ(issueOf([&] { MigrationPreflight::plan(item, {}, deferring, testServices()); }).key(),
            "migration.preflight.deferred");
  EXPECT_EQ(MigrationPreflight::scan(item, {}), before) << "later leaves the item untouched";

  // The user quits the server (its socket file stays behind) and says retry.
  ScriptedPrompter retrying({Choice::retry}, [&] { server.reset(); });
  int visited = 0;
  const auto plan = MigrationPreflight::plan(item, [&](const std::string&) { ++visited; }, retrying, testServices());
  EXPECT_EQ(retrying.asked, std::vector<std::vector<std::string>>{{"migration.preflight.socket app.sock"}});
  EXPECT_EQ(plan.inactiveSockets, std::set<std::string>{"app.sock"});
  EXPECT_EQ(plan.confirmedFifos, std::set<std::string>{"idle.fifo"});
  EXPECT_TRUE(plan.approvedSockets.empty());
  EXPECT_EQ(plan.manifest.size(), 4u);
  EXPECT_EQ(visited, 8) << "two scans of four entries";

  // A FIFO still in use after the answer ends the plan.
  auto reader = OccupantProcess::readingFifo(item + "/idle.fifo");
  ScriptedPrompter busy({Choice::retry});
  const auto issue = issueOf([&] { MigrationPreflight::plan(item, {}, busy, testServices()); });
  EXPECT_EQ(issue.key(), "migration.preflight.fifo_busy");
  EXPECT_EQ(issue.detail(), item + "/idle.fifo");
  EXPECT_EQ(busy.asked.size(), 1u);
}

TEST(MigrationPreflightTest, StoppingTheGitMonitorIsBelievedOnlyOnceItsSocketIsGone) {
  // This git cannot run its monitor daemon on Linux, so a child serves the socket in a real
  // repository's git directory. First the runner plays git's part: "stop" makes the daemon quit
  // (it removes its socket), "status" reports that nothing watches any more.
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Work");
  gitInit(item);
  const std::string gitDirectory = item + "/.git";
  auto daemon = std::make_unique<OccupantProcess>(
      OccupantProcess::listening(gitDirectory, "fsmonitor--daemon.ipc", OccupantSocket::stream));
  std::vector<std::string> commands;
  auto services = testServices();
  services.run = [&](const std::string& executable, const std::vector<std::string>& arguments, const std::string& where) {
    std::string command = executable;
    for (const auto& argument : arguments) command += " " + argument;
    commands.push_back(command + " @" + where);
    if (arguments.back() == "stop") daemon->stop(SIGTERM);
    return MigrationPreflight::ToolResult{arguments.back() == "stop" ? 0 : 1, ""};
  };
  ScriptedPrompter stopping({Choice::stop});
  const auto plan = MigrationPreflight::plan(item, {}, stopping, services);
  EXPECT_EQ(stopping.asked, std::vector<std::vector<std::string>>{{"migration.preflight.git_service .git/fsmonitor--daemon.ipc"}});
  EXPECT_EQ(commands, (std::vector<std::string>{"/usr/bin/git --git-dir=. fsmonitor--daemon stop @" + gitDirectory,
                                                "/usr/bin/git --git-dir=. fsmonitor--daemon status @" + gitDirectory}));
  EXPECT_FALSE(plan.manifest.contains(".git/fsmonitor--daemon.ipc"));
  EXPECT_TRUE(stopping.alerts.empty());

  // The real git cannot stop a monitor here and says so: the item fails after an alert.
  daemon = std::make_unique<OccupantProcess>(
      OccupantProcess::listening(gitDirectory, "fsmonitor--daemon.ipc", OccupantSocket::stream));
  ScriptedPrompter failing({Choice::stop});
  const auto issue = issueOf([&] { MigrationPreflight::plan(item, {}, failing, testServices()); });
  EXPECT_EQ(issue.key(), "migration.preflight.stop_failed");
  EXPECT_EQ(issue.detail(), item);
  EXPECT_EQ(failing.alerts, (std::vector<std::pair<std::string, std::string>>{
                                {localized("migration.preflight.title"), localized("migration.preflight.stop_retry_message")}}));

  // A stop that reports success while the daemon keeps its socket, or still watches, is not believed.
  const std::vector<MigrationRuntimeBlocker> blockers = {
      {"migration.preflight.git_service", ".git/fsmonitor--daemon.ipc", {}, gitDirectory}};
  for (const std::string statusOutput : {"", "fsmonitor-daemon is watching"}) {
    auto claimsSuccess = [&](const std::string&, const std::vector<std::string>& arguments, const std::string&) {
      return MigrationPreflight::ToolResult{arguments.back() == "stop" || !statusOutput.empty() ? 0 : 1, statusOutput};
    };
    EXPECT_THROW(MigrationPreflight::stopGit(blockers, claimsSuccess), MigrationIssue) << statusOutput;
  }
}

TEST(MigrationPreflightTest, ToolsAndGitDirectoriesAreNotFooledByTheEnvironmentOrLinks) {
  TemporaryDirectory scratch;
  setenv("GIT_DIR", "/elsewhere/.git", 1);
  setenv("GIT_OPTIONAL_LOCKS", "1", 1);
  const auto result = MigrationPreflight::runTool("/usr/bin/env", {}, scratch.path());
  unsetenv("GIT_DIR");
  unsetenv("GIT_OPTIONAL_LOCKS");
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.output.find("GIT_OPTIONAL_LOCKS=0\n"), std::string::npos) << result.output;
  EXPECT_EQ(result.output.find("GIT_DIR="), std::string::npos) << result.output;
  EXPECT_EQ(issueOf([&] { MigrationPreflight::runTool("/nonexistent/git", {"status"}, scratch.path()); }).key(),
            "migration.preflight.tool_failed");

  gitInit(scratch.child("repo"));
  const std::string gitDirectory = scratch.child("repo/.git");
  EXPECT_EQ(MigrationPreflight::gitDirectory(gitDirectory + "/fsmonitor--daemon.ipc"), gitDirectory);
  EXPECT_FALSE(MigrationPreflight::gitDirectory(gitDirectory + "/other.ipc"));
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
  const auto issue =
      issueOf([&] { MigrationPreflight::requireRuntimeIdle(item, manifest, assessment.inactiveSockets, services.probe); });
  EXPECT_EQ(issue.key(), "migration.preflight.runtime");
  EXPECT_EQ(issue.detail(), item + "/app.sock");
  auto unknownProbe = [](const std::string&) { return MigrationSocketProbe::Observation{}; };
  EXPECT_THROW(MigrationPreflight::requireRuntimeIdle(item, manifest, {}, unknownProbe), MigrationIssue);
}

TEST(MigrationPreflightTest, QuestionNamesTheBlockersAndOffersStopRetryLater) {
  const auto question = MigrationPreflight::question(
      {{"migration.preflight.socket", "run/db.sock", {"postgres", "psql"}, std::nullopt},
       {"migration.preflight.git_service", ".git/fsmonitor--daemon.ipc", {}, "/work/.git"}});
  EXPECT_NE(question.message.find(localizedFormat("migration.preflight.used_by", "run/db.sock", "postgres, psql")),
            std::string::npos) << question.message;
  EXPECT_NE(question.message.find(localizedWithDetail("migration.preflight.git_service", "/work/.git")), std::string::npos);
  EXPECT_EQ(question.buttons, (std::vector<std::string>{localized("migration.preflight.stop"), localized("migration.preflight.retry"),
                                                        localized("migration.preflight.later")}));
}

}  // namespace
}  // namespace corvane
