// Live things inside an item: the socket probe on real sockets and stand-in probes, socket owners, and the
// preflight plan over real sockets, a git monitor in a real repository, FIFOs and devices, with a scripted prompter.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <deque>

#include "engine/migration_preflight.h"
#include "engine/migration_socket_owners.h"
#include "engine/migration_socket_probe.h"
#include "engine/migration_test_support.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/open_file_lister.h"
#include "platform/process.h"
#include "platform/process_details.h"
#include "support/localization.h"
#include "support/paths.h"

namespace corvane {
namespace {

using Choice = MigrationPreflight::Choice;
using State = MigrationSocketProbe::State;

State probed(const std::string& path) { return MigrationSocketProbe::inspect(path, std::string(corvaneBinaryPath())).state; }

TEST(MigrationSocketProbeTest, TellsListeningStaleDatagramMissingAndNonSocketsApartAtAnyPathLength) {
  TemporaryDirectory directory;
  auto server = OccupantProcess::listening(directory.path(), "live.sock", OccupantSocket::stream);
  auto datagram = OccupantProcess::listening(directory.path(), "datagram.sock", OccupantSocket::datagram);
  makeStaleSocket(directory.child("stale.sock"));
  writeFile(directory.child("plain.sock"), "not a socket");

  const auto live = MigrationSocketProbe::inspect(directory.child("live.sock"), std::string(corvaneBinaryPath()));
  EXPECT_EQ(live.state, State::active);
  ASSERT_TRUE(live.entry);
  EXPECT_EQ(*live.entry, *MigrationEntry::read(directory.child("live.sock"), AT_FDCWD))
      << "the entry is the socket file as read after the connect";
  const auto stale = MigrationSocketProbe::inspect(directory.child("stale.sock"), std::string(corvaneBinaryPath()));
  EXPECT_EQ(stale.state, State::inactive);
  ASSERT_TRUE(stale.entry);
  EXPECT_EQ(stale.entry->kind, MigrationEntry::Kind::socket);
  // A stream connect to a datagram server is refused with EPROTOTYPE: someone is bound there.
  EXPECT_EQ(probed(directory.child("datagram.sock")), State::active);
  EXPECT_EQ(probed(directory.child("gone.sock")), State::missing);
  EXPECT_EQ(probed(directory.child("plain.sock")), State::unknown);
  server.stop();
  EXPECT_EQ(probed(directory.child("live.sock")), State::inactive) << "once the server is gone its socket is stale";
  // Paths longer than an address can hold are probed from inside their folder.
  std::string deep = directory.path();
  while (deep.size() < 190) deep += "/" + std::string(std::min<std::size_t>(60, 190 - deep.size()), 'd');
  makeDirectories(deep);
  ASSERT_GE((deep + "/live.sock").size(), 200u);
  auto deepServer = OccupantProcess::listening(deep, "live.sock", OccupantSocket::stream);
  EXPECT_EQ(probed(deep + "/live.sock"), State::active);
  deepServer.stop();
  EXPECT_EQ(probed(deep + "/live.sock"), State::inactive);
  // A file name that no macOS address can hold is refused, even where Linux could bind it.
  const std::string longName(104, 'n');
  auto longServer = OccupantProcess::listening(directory.path(), longName, OccupantSocket::stream);
  EXPECT_EQ(probed(directory.child(longName)), State::unknown);
  EXPECT_EQ(MigrationSocketProbe::inspectLeaf(std::string(103, 'n')).state, State::missing)
      << "103 bytes is still a name the probe tries";
}

TEST(MigrationSocketProbeTest, ProbeModeAnswersUnknownToHostileOrMalformedArguments) {
  // Every other probe here goes through this mode of the real binary; only bad requests remain.
  TemporaryDirectory directory;
  auto server = OccupantProcess::listening(directory.path(), "live.sock", OccupantSocket::stream);
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"--corvane-inspect-socket"}, {"--corvane-inspect-socket", "live.sock", "extra"},
           {"--corvane-inspect-socket", "../live.sock"}, {"--corvane-inspect-socket", ".."}}) {
    platform::ProcessRequest request;
    request.executable = corvaneBinaryPath();
    request.arguments = arguments;
    request.workingDirectory = directory.path();
    const auto run = platform::runProcess(request);
    EXPECT_TRUE(run.exit.succeeded()) << arguments.size();
    EXPECT_EQ(run.standardOutput, "{\"state\":\"unknown\"}") << arguments.back();
    EXPECT_EQ(run.standardError, "");
  }
}

TEST(MigrationSocketProbeTest, StandInProbesAreBelievedOnlyWhenTheyAnswerWellAndInTime) {
  TemporaryDirectory directory;
  makeStaleSocket(directory.child("stale.sock"));
  const std::string socket = directory.child("stale.sock");
  auto stateFrom = [&](const std::string& body) {
    return MigrationSocketProbe::inspect(socket, writeScript(directory.path(), "probe", body)).state;
  };
  EXPECT_EQ(MigrationSocketProbe::inspect(socket, std::nullopt).state, State::unknown);
  EXPECT_EQ(MigrationSocketProbe::inspect(socket, directory.child("no-such-probe")).state, State::unknown);
  EXPECT_EQ(stateFrom("echo '{\"state\":\"active\"}'; exit 3\n"), State::unknown) << "a failing child is not believed";
  EXPECT_EQ(stateFrom("echo '{\"state\":\"asleep\"}'\n"), State::unknown);
  EXPECT_EQ(stateFrom("echo '{\"entry\":{}}'\n"), State::unknown);
  EXPECT_EQ(stateFrom("exit 0\n"), State::unknown);
  // Answers "inactive" only when the arguments, directory and environment are as promised.
  setenv("DYLD_INSERT_LIBRARIES", "/tmp/inject.dylib", 1);
  setenv("XCInjectBundle", "/tmp/bundle", 1);
  setenv("CORVANE_KEPT", "yes", 1);
  const auto state = stateFrom(
      "[ \"$1\" = --corvane-inspect-socket ] && [ \"$2\" = stale.sock ] && [ $# -eq 2 ] && [ -S \"$2\" ] &&"
      " [ -z \"${DYLD_INSERT_LIBRARIES+set}\" ] && [ -z \"${XCInjectBundle+set}\" ] &&"
      " [ \"$LLVM_PROFILE_FILE\" = /dev/null ] && [ \"$CORVANE_KEPT\" = yes ] && { echo '{\"state\":\"inactive\"}'; exit 0; }\n"
      "echo '{\"state\":\"active\"}'\n");
  unsetenv("DYLD_INSERT_LIBRARIES");
  unsetenv("XCInjectBundle");
  unsetenv("CORVANE_KEPT");
  EXPECT_EQ(state, State::inactive);
  // A child that hangs is ended, reaped, and counts as unknown.
  const std::string pidFile = directory.child("pid");
  EXPECT_EQ(stateFrom("echo $$ > '" + pidFile + "'\nexec sleep 60\n"), State::unknown);
  EXPECT_TRUE(processIsReaped(std::stoi(readFile(pidFile)))) << "the hanging child was ended and reaped";
}

TEST(MigrationSocketOwnersTest, ParsesCommandNamesAndNamesNobodyWhenInDoubt) {
  EXPECT_EQ(MigrationSocketOwners::parse("p101\ncpostgres\nf5\np102\ncpostgres\np230\ncElectron Helper (Renderer)\n"
                                         "p231\ncrun\\x2dagent\ncstray\nk999\n"),
            (std::vector<std::string>{"Electron Helper (Renderer)", "postgres", "run-agent", "stray"}));
  EXPECT_EQ(MigrationSocketOwners::parse("cbefore-any-process\np1\n"), std::vector<std::string>{});
  EXPECT_TRUE(MigrationSocketOwners::parse("").empty());

  TemporaryDirectory directory;
  makeStaleSocket(directory.child("stale.sock"));
  const std::string socket = directory.child("stale.sock");
  EXPECT_TRUE(MigrationSocketOwners::lookup(socket, "/nonexistent/lsof").empty());
  EXPECT_TRUE(MigrationSocketOwners::lookup(socket).empty()) << "nobody holds a stale socket";
  EXPECT_TRUE(MigrationSocketOwners::lookup(directory.child("missing.sock")).empty());
  EXPECT_TRUE(MigrationSocketOwners::lookup(socket, writeScript(directory.path(), "hanging", "echo p1; echo cnever; exec sleep 30\n")).empty())
      << "a tool that does not finish in time names nobody";
  EXPECT_TRUE(MigrationSocketOwners::lookup(socket, writeScript(directory.path(), "latin1", "printf 'p1\\ncna\\357ve\\n'\n")).empty());
}

MigrationPreflight::Services testServices() {
  auto services = MigrationPreflight::defaultServices();
  services.probe = MigrationSocketProbe::probeWith(std::string(corvaneBinaryPath()));
  return services;
}

// Answers from a script, runs `onAnswer` with each answer and remembers what it was asked.
struct ScriptedPrompter : MigrationPreflightPrompter {
  explicit ScriptedPrompter(std::deque<Choice> script, std::function<void()> onAnswer = [] {})
      : answers(std::move(script)), onAnswer(std::move(onAnswer)) {}
  Choice choose(const std::vector<MigrationRuntimeBlocker>& blockers) override {
    asked.push_back(keys(blockers));
    const Choice answer = answers.at(0);  // throws when asked more often than scripted
    answers.pop_front();
    onAnswer();
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
  // A server of three processes: its program is named once.
  auto server = OccupantProcess::listening(item + "/run", "server.sock", OccupantSocket::stream, 3);
  const auto serverDetails = platform::describeProcess(server.pid());
  ASSERT_TRUE(serverDetails);
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
    if (blocker.relativePath == "run/server.sock") {
      // The server is a fork of this test program, so it carries the program's command name.
      EXPECT_EQ(blocker.owners, std::vector<std::string>{lastComponent(serverDetails->executablePath).substr(0, 15)});
    }
  }
  // A socket the user approved no longer blocks; the git monitor still does.
  auto approved = ScriptedPrompter::keys(MigrationPreflight::blockers(
      item, manifest, confirmed, {"run/server.sock", "repo/.git/fsmonitor--daemon.ipc"}, services));
  expected.pop_back();
  EXPECT_EQ(approved, expected);
}

TEST(MigrationPreflightTest, PlanLoopDefersRetriesAndStopsOnAFifoThatStaysBusyAndTheLastCheckSeesNewServers) {
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
  // The last check before the switch passes, unless a server started on the socket since the plan.
  const auto probe = testServices().probe;
  EXPECT_NO_THROW(MigrationPreflight::requireRuntimeIdle(item, plan.manifest, plan.inactiveSockets, probe));
  ASSERT_EQ(unlink((item + "/app.sock").c_str()), 0);
  server = std::make_unique<OccupantProcess>(OccupantProcess::listening(item, "app.sock", OccupantSocket::stream));
  auto issue = issueOf([&] { MigrationPreflight::requireRuntimeIdle(item, plan.manifest, plan.inactiveSockets, probe); });
  EXPECT_EQ(issue.key(), "migration.preflight.runtime");
  EXPECT_EQ(issue.detail(), item + "/app.sock");
  auto unknownProbe = [](const std::string&) { return MigrationSocketProbe::Observation{}; };
  EXPECT_THROW(MigrationPreflight::requireRuntimeIdle(item, plan.manifest, {}, unknownProbe), MigrationIssue);
  server->stop();  // killed: its socket file stays behind, stale
  // A FIFO still in use after the answer ends the plan.
  auto reader = OccupantProcess::readingFifo(item + "/idle.fifo");
  ScriptedPrompter busy({Choice::retry});
  issue = issueOf([&] { MigrationPreflight::plan(item, {}, busy, testServices()); });
  EXPECT_EQ(issue.key(), "migration.preflight.fifo_busy");
  EXPECT_EQ(issue.detail(), item + "/idle.fifo");
  EXPECT_EQ(busy.asked.size(), 1u);
}

TEST(MigrationPreflightTest, StoppingTheGitMonitorIsBelievedOnlyOnceItsSocketIsGone) {
  // This git has no monitor daemon here: a child serves its socket in a real repository, and first the
  // runner plays git ("stop" makes the daemon quit and remove its socket, "status" says nothing watches).
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

}  // namespace
}  // namespace corvane
