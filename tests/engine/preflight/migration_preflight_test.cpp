// What may stop a move before it starts: live sockets (probed for real and through stand-ins), their owners, the
// plan over real sockets, a git monitor, FIFOs and devices; protected places; and simulator data (stand-in xcrun).
#include "engine/preflight/migration_preflight.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "catalogue/protected_locations.h"
#include "engine/migration_test_support.h"
#include "engine/preflight/migration_selection_validator.h"
#include "engine/preflight/migration_socket_owners.h"
#include "engine/preflight/migration_socket_probe.h"
#include "engine/preflight/simulator_migration_preflight.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/host_system.h"
#include "platform/open_file_lister.h"
#include "platform/posix_error.h"
#include "platform/process.h"
#include "platform/process_details.h"
#include "settings/localization.h"
#include "support/paths.h"

namespace corvane {
namespace {

using Choice = MigrationPreflight::Choice;
using State = MigrationSocketProbe::State;

State probed(const std::string& path) {
  return MigrationSocketProbe::inspect(path, std::string(corvaneBinaryPath())).state;
}

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
  for (const auto& arguments : std::vector<std::vector<std::string>>{{"--corvane-inspect-socket"},
                                                                     {"--corvane-inspect-socket", "live.sock", "extra"},
                                                                     {"--corvane-inspect-socket", "../live.sock"},
                                                                     {"--corvane-inspect-socket", ".."}}) {
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
      " [ \"$LLVM_PROFILE_FILE\" = /dev/null ] && [ \"$CORVANE_KEPT\" = yes ] && { echo '{\"state\":\"inactive\"}'; "
      "exit 0; }\n"
      "echo '{\"state\":\"active\"}'\n");
  unsetenv("DYLD_INSERT_LIBRARIES");
  unsetenv("XCInjectBundle");
  unsetenv("CORVANE_KEPT");
  EXPECT_EQ(state, State::inactive);
  // A child that hangs is ended, reaped, and counts as unknown.
  const std::string pidFile = directory.child("pid");
  const ShortToolDeadlines brief;
  EXPECT_EQ(stateFrom("echo $$ > '" + pidFile + "'\nexec sleep 60\n"), State::unknown);
  EXPECT_TRUE(processIsReaped(std::stoi(readFile(pidFile)))) << "the hanging child was ended and reaped";
}

// The kernel's short command name of a process forked from this test program.
std::string commandOf(pid_t pid) {
  const auto details = platform::describeProcess(pid);
  return details ? lastComponent(details->executablePath).substr(0, 15) : std::string();
}

std::vector<pid_t> pidsOf(const std::vector<MigrationSocketOwners::Holder>& holders) {
  std::vector<pid_t> pids;
  for (const auto& holder : holders) pids.push_back(holder.pid);
  std::sort(pids.begin(), pids.end());
  return pids;
}

TEST(MigrationSocketOwnersTest, NamesTheServersOfASocketHoweverTheyBoundItAndNobodyWhenInDoubt) {
  using Holder = MigrationSocketOwners::Holder;
  const auto parsed = MigrationSocketOwners::parse(
      "p101\ncpostgres\nf5\np102\ncpostgres\np230\ncElectron Helper (Renderer)\np231\ncrun\\x2dagent\nk999\n");
  EXPECT_EQ(parsed, (std::vector<Holder>{{101, "postgres", {}},
                                         {102, "postgres", {}},
                                         {230, "Electron Helper (Renderer)", {}},
                                         {231, "run-agent", {}}}));
  EXPECT_EQ(MigrationSocketOwners::names(parsed),
            (std::vector<std::string>{"Electron Helper (Renderer)", "postgres", "run-agent"}));
  EXPECT_TRUE(MigrationSocketOwners::names(MigrationSocketOwners::parse("cbefore-any-process\np1\n")).empty());
  EXPECT_TRUE(MigrationSocketOwners::parse("").empty());
  EXPECT_TRUE(MigrationSocketOwners::parse("p1\ncone\npbroken\ncother\n").empty()) << "unreadable output";

  // Real servers: bound by the full path, by a name relative to their folder (the path is too long
  // for an address), and reached through a linked folder. lsof finds only the first.
  TemporaryDirectory directory;
  const std::string deep = directory.child(std::string(100, 'd'));
  makeDirectories(deep);
  ASSERT_EQ(symlink(deep.c_str(), directory.child("linked").c_str()), 0);
  auto server = OccupantProcess::listening(directory.path(), "full.sock", OccupantSocket::stream, 3);
  auto relative = OccupantProcess::listening(deep, "relative.sock", OccupantSocket::stream);
  auto datagram = OccupantProcess::listening(deep, "datagram.sock", OccupantSocket::datagram);
  const std::string command = commandOf(server.pid());
  ASSERT_FALSE(command.empty());
  const auto served = MigrationSocketOwners::holders(directory.child("full.sock"));
  EXPECT_EQ(pidsOf(served).size(), 3u) << "the server and the two workers that hold its socket";
  EXPECT_EQ(MigrationSocketOwners::names(served), std::vector<std::string>{command}) << "one program, named once";
  for (const auto& path : {deep + "/relative.sock", directory.child("linked/relative.sock")}) {
    const auto holders = MigrationSocketOwners::holders(path);
    EXPECT_EQ(pidsOf(holders), std::vector<pid_t>{relative.pid()}) << path;
    EXPECT_EQ(MigrationSocketOwners::names(holders), std::vector<std::string>{command}) << path;
    ASSERT_EQ(holders.size(), 1u);
    ASSERT_TRUE(holders[0].details);
    EXPECT_EQ(holders[0].details->executablePath, platform::describeProcess(relative.pid())->executablePath);
  }
  EXPECT_EQ(pidsOf(MigrationSocketOwners::holders(deep + "/datagram.sock")), std::vector<pid_t>{datagram.pid()});

  makeStaleSocket(directory.child("stale.sock"));
  const std::string socket = directory.child("stale.sock");
  EXPECT_TRUE(MigrationSocketOwners::holders(socket, "/nonexistent/lsof").empty());
  EXPECT_TRUE(MigrationSocketOwners::holders(socket).empty()) << "nobody holds a stale socket";
  EXPECT_TRUE(MigrationSocketOwners::holders(directory.child("missing.sock")).empty());
  writeFile(directory.child("plain.sock"), "not a socket");
  EXPECT_TRUE(MigrationSocketOwners::holders(directory.child("plain.sock")).empty());
  const auto hanging = writeScript(directory.path(), "hanging", "echo p1; echo cnever; exec sleep 30\n");
  {
    const ShortToolDeadlines brief;
    EXPECT_TRUE(MigrationSocketOwners::holders(socket, hanging).empty())
        << "a tool that does not finish in time names nobody";
  }
  // Where lsof is the tool (macOS), its holders are described as the native ones are.
  const auto listing =
      writeScript(directory.path(), "listing", "printf 'p" + std::to_string(relative.pid()) + "\\ncserver\\n'\n");
  const auto listed = MigrationSocketOwners::holders(socket, listing);
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(listed[0].command, "server");
  EXPECT_EQ(listed[0].details, platform::describeProcess(relative.pid()));
  const auto latin1 = writeScript(directory.path(), "latin1", "printf 'p1\\ncna\\357ve\\n'\n");
  EXPECT_TRUE(MigrationSocketOwners::holders(socket, latin1).empty()) << "names that are not UTF-8 are not believed";
}

MigrationPreflight::Services testServices() {
  auto services = MigrationPreflight::defaultServices();
  services.probe = MigrationSocketProbe::probeWith(std::string(corvaneBinaryPath()));
  return services;
}

// Answers from a script, runs `onAnswer` with each answer and remembers what it was asked.
struct ScriptedPrompter : MigrationPreflightPrompter {
  explicit ScriptedPrompter(
      Choice answer, std::function<void()> onAnswer = [] {})
      : answer(answer), onAnswer(onAnswer) {}
  Choice choose(const std::vector<MigrationRuntimeBlocker>& blockers) override {
    asked.push_back(keys(blockers));
    if (asked.size() > 1) throw std::logic_error("asked again after the one scripted answer");
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

  Choice answer;
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

// This git has no monitor daemon on Linux: a stand-in that runs as "git fsmonitor--daemon run"
// serves the monitor's socket in `gitDirectory`, its program link kept in `bin`.
OccupantProcess gitMonitorStandIn(const std::string& bin, const std::string& gitDirectory) {
  makeDirectories(bin);
  return OccupantProcess::listeningAs(bin + "/git", {"fsmonitor--daemon", "run"}, gitDirectory,
                                      std::string(MigrationPreflight::kGitMonitorSocketName));
}

std::vector<std::string> buttonsFor(const std::vector<MigrationRuntimeBlocker>& blockers) {
  return MigrationPreflight::question(blockers).buttons;
}

TEST(MigrationPreflightTest, BlockersOfARealItem) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Project");
  makeDirectories(item + "/run");
  gitInit(item + "/repo");
  // A server of three processes: its program is named once.
  auto server = OccupantProcess::listening(item + "/run", "server.sock", OccupantSocket::stream, 3);
  // A monitor's socket in a real git directory, held by another program, is an ordinary socket.
  auto impersonator = OccupantProcess::listening(item + "/repo/.git", "fsmonitor--daemon.ipc", OccupantSocket::stream);
  gitInit(item + "/watched");
  auto monitor = gitMonitorStandIn(scratch.child("bin"), item + "/watched/.git");
  // A monitor-named socket where the directory is no git directory is an ordinary socket.
  writeFile(item + "/fake-git/.git/HEAD", "ref: refs/heads/main\n");
  writeFile(item + "/fake-git/.git/config", "");
  auto impostor = OccupantProcess::listening(item + "/fake-git/.git", "fsmonitor--daemon.ipc", OccupantSocket::stream);
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
  expected.push_back("migration.preflight.socket repo/.git/fsmonitor--daemon.ipc");
  expected.push_back("migration.preflight.socket run/server.sock");
  expected.push_back("migration.preflight.git_service watched/.git/fsmonitor--daemon.ipc");
  EXPECT_EQ(ScriptedPrompter::keys(assessment.blockers), expected);
  EXPECT_EQ(assessment.inactiveSockets, std::set<std::string>{"run/stale.sock"});
  const std::vector<std::string> testProgram{commandOf(server.pid())};
  for (const auto& blocker : assessment.blockers) {
    if (blocker.key == "migration.preflight.git_service") {
      EXPECT_EQ(blocker.gitDirectory, item + "/watched/.git");
    }
    if (blocker.key == "migration.preflight.socket") {
      // Every other server here, the impersonators too, is a fork of this test program.
      EXPECT_EQ(blocker.owners, testProgram) << blocker.relativePath;
      EXPECT_FALSE(blocker.gitDirectory) << blocker.relativePath;
    }
  }
  // Only a git monitor among the blockers is offered "stop"; devices, pipes and other programs'
  // sockets are for the user to end.
  const auto stop = localized("migration.preflight.stop");
  const auto buttons = buttonsFor(assessment.blockers);
  EXPECT_EQ(buttons, (std::vector<std::string>{stop, localized("migration.preflight.retry"),
                                               localized("migration.preflight.later")}));
  auto others = assessment.blockers;
  std::erase_if(others, [](const auto& blocker) { return blocker.key == "migration.preflight.git_service"; });
  EXPECT_EQ(buttonsFor(others),
            (std::vector<std::string>{localized("migration.preflight.retry"), localized("migration.preflight.later")}));
  EXPECT_EQ(MigrationPreflight::choices(others), (std::vector<Choice>{Choice::retry, Choice::later}));
  // A socket the user approved no longer blocks; the git monitor still does.
  auto approved = ScriptedPrompter::keys(MigrationPreflight::blockers(
      item, manifest, confirmed,
      {"run/server.sock", "repo/.git/fsmonitor--daemon.ipc", "watched/.git/fsmonitor--daemon.ipc"}, services));
  std::erase_if(expected, [](const std::string& key) {
    return key.ends_with(" run/server.sock") || key.ends_with(" repo/.git/fsmonitor--daemon.ipc");
  });
  EXPECT_EQ(approved, expected);
}

TEST(MigrationPreflightTest, PlanLoopDefersRetriesAndStopsOnAFifoThatStaysBusyAndTheLastCheckSeesNewServers) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  writeFile(item + "/data.txt", "data");
  auto server = std::make_unique<OccupantProcess>(OccupantProcess::listening(item, "app.sock", OccupantSocket::stream));
  ASSERT_EQ(mkfifo((item + "/idle.fifo").c_str(), 0600), 0);
  const auto before = MigrationPreflight::scan(item, {});
  ScriptedPrompter deferring(Choice::later);
  EXPECT_EQ(issueOf([&] { MigrationPreflight::plan(item, {}, deferring, testServices()); }).key(),
            "migration.preflight.deferred");
  EXPECT_EQ(MigrationPreflight::scan(item, {}), before) << "later leaves the item untouched";
  // The user quits the server (its socket file stays behind) and says retry.
  ScriptedPrompter retrying(Choice::retry, [&] { server.reset(); });
  int visited = 0;
  const auto plan = MigrationPreflight::plan(
      item, [&](const std::string&) { ++visited; }, retrying, testServices());
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
  auto issue =
      issueOf([&] { MigrationPreflight::requireRuntimeIdle(item, plan.manifest, plan.inactiveSockets, probe); });
  EXPECT_EQ(issue.key(), "migration.preflight.runtime");
  EXPECT_EQ(issue.detail(), item + "/app.sock");
  auto unknownProbe = [](const std::string&) { return MigrationSocketProbe::Observation{}; };
  EXPECT_THROW(MigrationPreflight::requireRuntimeIdle(item, plan.manifest, {}, unknownProbe), MigrationIssue);
  server->stop();  // killed: its socket file stays behind, stale
  // A FIFO still in use after the answer ends the plan.
  auto reader = OccupantProcess::readingFifo(item + "/idle.fifo");
  ScriptedPrompter busy(Choice::retry);
  issue = issueOf([&] { MigrationPreflight::plan(item, {}, busy, testServices()); });
  EXPECT_EQ(issue.key(), "migration.preflight.fifo_busy");
  EXPECT_EQ(issue.detail(), item + "/idle.fifo");
  EXPECT_EQ(busy.asked.size(), 1u);
}

TEST(MigrationPreflightTest, StoppingTheGitMonitorIsBelievedOnlyOnceItsSocketIsGone) {
  // A stand-in monitor serves the socket in a real repository, and first the runner plays git ("stop"
  // makes the daemon quit and remove its socket, "status" says nothing watches).
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Work");
  gitInit(item);
  const std::string gitDirectory = item + "/.git";
  auto daemon = std::make_unique<OccupantProcess>(gitMonitorStandIn(scratch.child("bin"), gitDirectory));
  std::vector<std::string> commands;
  auto services = testServices();
  services.run = [&](const std::string& executable, const std::vector<std::string>& arguments,
                     const std::string& where) {
    std::string command = executable;
    for (const auto& argument : arguments) command += " " + argument;
    commands.push_back(command + " @" + where);
    if (arguments.back() == "stop") daemon->stop(SIGTERM);
    return MigrationPreflight::ToolResult{arguments.back() == "stop" ? 0 : 1, ""};
  };
  ScriptedPrompter stopping(Choice::stop);
  const auto plan = MigrationPreflight::plan(item, {}, stopping, services);
  EXPECT_EQ(stopping.asked, decltype(stopping.asked){{"migration.preflight.git_service .git/fsmonitor--daemon.ipc"}});
  EXPECT_EQ(commands, (std::vector<std::string>{"/usr/bin/git --git-dir=. fsmonitor--daemon stop @" + gitDirectory,
                                                "/usr/bin/git --git-dir=. fsmonitor--daemon status @" + gitDirectory}));
  EXPECT_FALSE(plan.manifest.contains(".git/fsmonitor--daemon.ipc"));
  EXPECT_TRUE(stopping.alerts.empty());
  // The real git cannot stop a monitor here and says so: the item fails after an alert.
  daemon = std::make_unique<OccupantProcess>(gitMonitorStandIn(scratch.child("bin"), gitDirectory));
  ScriptedPrompter failing(Choice::stop);
  const auto issue = issueOf([&] { MigrationPreflight::plan(item, {}, failing, testServices()); });
  EXPECT_EQ(issue.key(), "migration.preflight.stop_failed");
  EXPECT_EQ(issue.detail(), item);
  EXPECT_EQ(failing.alerts, (decltype(failing.alerts){{localized("migration.preflight.title"),
                                                       localized("migration.preflight.stop_retry_message")}}));
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

// git's own monitor daemon, where this git can run one (not on Linux, as of git 2.39).
TEST(MigrationPreflightTest, ARealGitMonitorIsOfferedStopAndIsStopped) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Work");
  gitInit(item);
  auto git = [&](const std::vector<std::string>& arguments) {
    platform::ProcessRequest request;
    request.executable = std::string(MigrationPreflight::kGitExecutable);
    request.arguments = {"-c", "core.fsmonitor=true"};
    request.arguments.insert(request.arguments.end(), arguments.begin(), arguments.end());
    request.workingDirectory = item;
    return platform::runProcess(request);
  };
  const auto started = git({"fsmonitor--daemon", "start"});
  if (!started.exit.succeeded()) {
    GTEST_SKIP() << "this git cannot run its file system monitor daemon here: " << started.standardError;
  }
  struct StopAtTheEnd {
    std::function<void()> stop;
    ~StopAtTheEnd() { stop(); }
  } stopAtTheEnd{[&] { git({"fsmonitor--daemon", "stop"}); }};
  ScriptedPrompter stopping(Choice::stop);
  const auto plan = MigrationPreflight::plan(item, {}, stopping, testServices());
  EXPECT_EQ(stopping.asked, decltype(stopping.asked){{"migration.preflight.git_service .git/fsmonitor--daemon.ipc"}});
  EXPECT_FALSE(plan.manifest.contains(".git/fsmonitor--daemon.ipc")) << "the daemon stopped and took its socket";
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

using namespace std::chrono_literals;
using Preflight = SimulatorMigrationPreflight;

// Short bounds so the hanging cases end quickly.
constexpr platform::ProcessDeadlines kTestDeadlines{300ms, 300ms, 300ms};

// A stand-in xcrun that checks its arguments, records its pid in `name`.pid, then runs `body`.
std::string fakeXcrun(const TemporaryDirectory& directory, const std::string& body, const std::string& name = "xcrun") {
  return writeScript(
      directory.path(), name,
      "echo $$ > '" + directory.child(name + ".pid") +
          "'\n"
          "if [ \"$*\" != 'simctl list devices --json' ]; then echo \"unexpected: $*\" >&2; exit 64; fi\n" +
          body + "\n");
}

std::string listing(const std::string& json) { return "cat <<'JSON'\n" + json + "\nJSON"; }

MigrationIssue checked(const std::string& tool) {
  return issueOf([&] { Preflight::checkDevices(tool, kTestDeadlines); });
}

const char* kAllShutdown = R"({"devices": {"com.apple.CoreSimulator.SimRuntime.iOS-17-2": [
    {"state": "Shutdown", "name": "iPhone 15", "udid": "6A3C…", "isAvailable": true}, {"state": "Shutdown"}],
  "com.apple.CoreSimulator.SimRuntime.watchOS-10-2": []}, "extra": 1})";

TEST(SimulatorDeviceCheckTest, ShutDownOrAbsentDevicesPassAndAnyOtherStateRefuses) {
  TemporaryDirectory directory;
  EXPECT_EQ(checked(fakeXcrun(directory, listing(kAllShutdown))).key(), "");
  EXPECT_EQ(checked(fakeXcrun(directory, listing(R"({"devices":{}})"))).key(), "");
  for (const std::string state : {"Booted", "Booting", "Shutting Down", "shutdown", ""}) {
    const auto issue = checked(fakeXcrun(
        directory, listing(R"({"devices":{"r1":[{"state":"Shutdown"}],"r2":[{"state":")" + state + R"("}]}})")));
    EXPECT_EQ(issue.key(), "error.simulator_running") << state;
    EXPECT_EQ(issue.detail(), "") << state;
  }
  EXPECT_NO_THROW(Preflight::checkDevices(std::nullopt, kTestDeadlines)) << "no tool means no check";
}

TEST(SimulatorDeviceCheckTest, UndecodableListingsAndFailingOrHangingToolsFailTheCheckAndAreReaped) {
  for (const std::string output :
       {"garbage", "", R"({"devices":[]})", R"({"runtimes":{}})", R"({"devices":{"r":[{}]}})",
        R"({"devices":{"r":[{"state":1}]}})", R"({"devices":{"r":{"state":"Shutdown"}}})", R"([{"devices":{}}])",
        R"({"devices":{"r":[{"state":"Shutdown"}]})"}) {
    const auto issue = issueOf([&] { Preflight::validateDeviceList(output); });
    EXPECT_EQ(issue.key(), "error.simulator_check_failed") << output;
    EXPECT_FALSE(issue.detail().empty()) << "the decoder's description is kept: " << output;
  }
  TemporaryDirectory directory;
  EXPECT_EQ(checked(fakeXcrun(directory, "echo 'xcrun: error: unable to find utility \"simctl\"'")).key(),
            "error.simulator_check_failed");
  const auto failing = checked(fakeXcrun(directory, listing(kAllShutdown) + "\necho 'simctl broke' >&2; exit 3"));
  EXPECT_EQ(failing.key(), "error.simulator_check_failed");
  EXPECT_EQ(failing.detail(), "simctl exit 3");
  EXPECT_NE(failing.localizedDescription().find("simctl exit 3"), std::string::npos);
  EXPECT_EQ(checked(fakeXcrun(directory, "kill -9 $$")).detail(), "simctl exit 9");
  // Output left open by another process counts as unread.
  const auto leftOpen = checked(fakeXcrun(
      directory, listing(kAllShutdown) + "\nsleep 1000 &\necho $! > '" + directory.child("helper") + "'\nexit 0"));
  EXPECT_EQ(leftOpen.key(), "error.simulator_check_failed");
  EXPECT_EQ(leftOpen.detail(), "simctl exit 0");
  ::kill(std::stoi(readFile(directory.child("helper"))), SIGKILL);
  EXPECT_THROW(Preflight::checkDevices(directory.child("missing-xcrun"), kTestDeadlines), platform::PosixError);
  // A tool that hangs and ignores the terminate request, so only the kill ends it.
  const auto stubborn = fakeXcrun(directory, "trap '' TERM\necho '{\"devices\":' \nexec sleep 1000", "stubborn");
  EXPECT_EQ(checked(stubborn).detail(), "simctl timeout");
  EXPECT_TRUE(processIsReaped(std::stoi(readFile(stubborn + ".pid")))) << "reaped by us: not even a zombie is left";
  // A helper the tool waits for goes down with it (it may stay a zombie of another parent).
  EXPECT_EQ(checked(fakeXcrun(directory, "sleep 1000 &\necho $! > '" + directory.child("waiter") + "'\nwait")).detail(),
            "simctl timeout");
  std::ifstream stat("/proc/" + std::to_string(std::stoi(readFile(directory.child("waiter")))) + "/stat");
  std::string pidText, name, state;
  stat >> pidText >> name >> state;
  EXPECT_TRUE(!stat || state == "Z") << "the helper still runs";
}

TEST(SimulatorPathCheckTest, TheSystemFolderIsRefusedAndTheHomesFolderIsUserData) {
  for (const std::string path :
       {"/Library/Developer/CoreSimulator", "/Library/Developer/CoreSimulator/",
        "/Library/Developer/CoreSimulator/Profiles/Runtimes", "/Library/Developer/Tools/../CoreSimulator/Devices",
        "//Library/./Developer/CoreSimulator"}) {
    const auto issue = issueOf([&] { Preflight::validateSystemPath(path); });
    EXPECT_EQ(issue.key(), "error.simulator_system_directory") << path;
    EXPECT_EQ(issue.detail(), path);
  }
  for (const std::string path :
       {"/Library/Developer/CoreSimulatorX", "/Library/Developer", "/Library/Developer/CoreSimulatorBackup/x",
        "/Users/a/Library/Developer/CoreSimulator"}) {
    EXPECT_NO_THROW(Preflight::validateSystemPath(path)) << path;
  }
  // A link is judged by where it leads.
  TemporaryDirectory home;
  ASSERT_EQ(::symlink("/Library/Developer/CoreSimulator/Devices", home.child("devices").c_str()), 0);
  EXPECT_EQ(issueOf([&] { Preflight::validateSystemPath(home.child("devices")); }).key(),
            "error.simulator_system_directory");
  const std::string base = home.child("Library/Developer/CoreSimulator");
  makeDirectories(base + "/Devices");
  ASSERT_EQ(::symlink((base + "/Devices").c_str(), home.child("shortcut").c_str()), 0);
  for (const auto& [path, userData] :
       std::vector<std::pair<std::string, bool>>{{base, true},
                                                 {base + "/Devices/ABC", true},
                                                 {home.child("Library/Developer/Xcode/../CoreSimulator"), true},
                                                 {home.child("shortcut"), true},
                                                 {base + "Backup", false},
                                                 {home.child("Library/Developer"), false},
                                                 {"/Library/Developer/CoreSimulator", false}}) {
    EXPECT_EQ(Preflight::isUserData(path, home.path()), userData) << path;
  }
  EXPECT_TRUE(Preflight::isUserData(base, home.path() + "/"));
}

// Services that answer as scripted and count what they were asked.
struct ScriptedServices {
  Preflight::Services services;
  int queries = 0;
  ScriptedServices(const std::string& home, Preflight::VolumeSupport support, std::set<std::string> running,
                   std::optional<std::string> tool) {
    services.homeDirectory = home;
    services.volumeSupport = [this, support](const std::string&) { return ++queries, support; };
    services.runningApplications = [this, running] { return ++queries, running; };
    services.listingTool = std::move(tool);
    services.listingDeadlines = kTestDeadlines;
  }
};

TEST(SimulatorPreflightTest, ItemsOutsideSimulatorDataSkipEveryLaterCheck) {
  TemporaryDirectory home;
  // Everything would fail: no volume support, Xcode running, a tool that cannot start.
  ScriptedServices scripted(home.path(), {false, std::nullopt}, {"com.apple.dt.Xcode"}, home.child("no-such-tool"));
  EXPECT_NO_THROW(Preflight::check(home.child("Projects"), "/media/disk/Directories/x", scripted.services));
  EXPECT_NO_THROW(Preflight::check(home.child("Library/Developer/CoreSimulatorBackup"), "/media/x", scripted.services));
  EXPECT_EQ(scripted.queries, 0);
  EXPECT_EQ(issueOf([&] { Preflight::check("/Library/Developer/CoreSimulator", "/x", scripted.services); }).key(),
            "error.simulator_system_directory");
}

TEST(SimulatorPreflightTest, UserDataNeedsACapableVolumeNoSimulatorProgramsAndShutDownDevices) {
  TemporaryDirectory home;
  const std::string source = home.child("Library/Developer/CoreSimulator/Devices");
  const auto booted = fakeXcrun(home, listing(R"({"devices":{"r":[{"state":"Booted"}]}})"), "booted");
  const auto idle = fakeXcrun(home, listing(kAllShutdown), "idle");
  struct Case {
    Preflight::VolumeSupport support;
    std::set<std::string> running;
    std::optional<std::string> tool;
    std::string expectedKey;  // empty: passes
  };
  const std::vector<Case> cases = {
      {{true, true}, {}, idle, ""},
      {{true, true}, {"com.example.editor"}, std::nullopt, ""},
      {{true, std::nullopt}, {}, idle, "error.simulator_filesystem"},
      {{std::nullopt, true}, {}, idle, "error.simulator_filesystem"},
      {{false, true}, {}, idle, "error.simulator_filesystem"},
      {{true, true}, {"com.apple.dt.Xcode"}, idle, "error.simulator_running"},
      {{true, true}, {"com.apple.iphonesimulator"}, idle, "error.simulator_running"},
      {{true, true}, {}, booted, "error.simulator_running"},
      {{false, false}, {"com.apple.dt.Xcode"}, booted, "error.simulator_filesystem"},
  };
  for (std::size_t index = 0; index < cases.size(); ++index) {
    ScriptedServices scripted(home.path(), cases[index].support, cases[index].running, cases[index].tool);
    const auto issue =
        issueOf([&] { Preflight::check(source, "/media/disk/Directories" + source, scripted.services); });
    EXPECT_EQ(issue.key(), cases[index].expectedKey) << "case " << index;
    EXPECT_EQ(issue.detail(), "") << "case " << index;
  }
}

TEST(SimulatorPreflightTest, TheRealVolumeProbeDecidesWhetherSimulatorDataMayGoThere) {
  for (const auto& [kind, expectedKey] : {std::pair{VolumeKind::ext4, std::string()},
                                          std::pair{VolumeKind::fat, std::string("error.simulator_filesystem")}}) {
    CORVANE_TEST_VOLUME(volume, kind);
    TemporaryDirectory home;
    auto services = Preflight::defaultServices();
    services.homeDirectory = home.path();
    const std::string source = home.child("Library/Developer/CoreSimulator");
    // The destination does not exist yet; its volume is that of the nearest existing folder.
    EXPECT_EQ(issueOf([&] { Preflight::check(source, volume->child("Directories" + source), services); }).key(),
              expectedKey)
        << volumeKindName(kind);
  }
}

TEST(ProtectedLocationsTest, SystemTreesHomesEveryFolderAboveThemAndLinksToThemAreKeptAndRefused) {
  using Paths = std::vector<std::string>;
  const std::vector<std::tuple<platform::HostSystem, const char*, Paths, Paths>> cases = {
      {platform::HostSystem::linuxDesktop,
       "/home/ann",
       {"/",
        "/usr",
        "/usr/local/bin/tool",
        "/bin",
        "/etc",
        "/etc/ssh",
        "/boot/efi",
        "/proc/1",
        "/sys/class",
        "/dev/null",
        "/var/lib",
        "/var/lib/docker",
        "/run/user/1000",
        "/var",
        "/home",
        "/home/ann",
        "/home/ann/",
        "/home/ann/x/..",
        "/home//ann",
        "/tmp",
        "/media",
        "/mnt",
        "/root",
        "relative/path",
        ""},
       {"/home/ann/Projects", "/home/ann/.cache", "/home/ann/.local/share/Steam", "/opt/tool", "/srv/data", "/var/log",
        "/var/cache/big", "/tmp/build", "/media/ann/Disk/x", "/usrx", "/home/annex", "/home/bob/Videos"}},
      {platform::HostSystem::macOS,
       "/Users/ann",
       {"/", "/System", "/System/Applications/Safari.app", "/usr/local", "/private/var/db",
        "/Library/Developer/CoreSimulator/Devices", "/Library", "/Library/Developer", "/Applications", "/Users",
        "/Users/ann", "/Users/ann/Library", "/Volumes"},
       {"/Applications/Foo.app", "/Users/ann/Library/Developer/Xcode/DerivedData", "/Library/Application Support/Foo",
        "/Users/ann/Movies", "/opt/homebrew", "/Library/Developer/CoreSimulatorX"}}};
  for (const auto& [host, home, kept, movable] : cases) {
    const auto locations = ProtectedLocations::forHost(host, home);
    for (const auto& path : kept) EXPECT_TRUE(locations.isProtected(path)) << path;
    for (const auto& path : movable) EXPECT_FALSE(locations.isProtected(path)) << path;
  }
  // A link is judged by where it leads too.
  const auto locations = ProtectedLocations::forHost(platform::HostSystem::linuxDesktop, "/home/ann");
  TemporaryDirectory dir;
  ASSERT_EQ(::symlink("/etc", dir.child("settings").c_str()), 0);
  ASSERT_EQ(::symlink("/usr/share", dir.child("shared").c_str()), 0);
  EXPECT_TRUE(locations.isProtected(dir.child("settings")));
  EXPECT_TRUE(locations.isProtected(dir.child("shared/doc")));
  EXPECT_FALSE(locations.isProtected(dir.child("plain")));
  // A selection of a protected place is refused with the selection error and its text.
  const MigrationSelectionValidator validator([&](const std::string& path) { return locations.isProtected(path); });
  EXPECT_FALSE(validator.validate("/home/ann/Projects").has_value());
  const auto refusal = validator.validate(dir.child("settings"));
  ASSERT_TRUE(refusal.has_value());
  EXPECT_EQ(refusal->domain, "Corvane.Selection");
  EXPECT_EQ(refusal->code, 1);
  EXPECT_EQ(refusal->localizedDescription, "“" + dir.child("settings") + "” is protected and can't be moved.");
}

}  // namespace
}  // namespace corvane
