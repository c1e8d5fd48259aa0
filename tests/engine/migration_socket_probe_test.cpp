// The socket probe against real sockets, through the real corvane binary in its probe mode and
// through stand-in probe executables; naming a socket's owners through real lsof.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "engine/migration_socket_owners.h"
#include "engine/migration_socket_probe.h"
#include "engine/migration_test_support.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/open_file_lister.h"
#include "platform/process_details.h"
#include "support/paths.h"

namespace corvane {
namespace {

using State = MigrationSocketProbe::State;

State probed(const std::string& path) { return MigrationSocketProbe::inspect(path, std::string(corvaneBinaryPath())).state; }

TEST(MigrationSocketProbeTest, TellsListeningStaleDatagramMissingAndNonSocketsApart) {
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
}

TEST(MigrationSocketProbeTest, ProbesSocketsWhosePathIsLongerThanAnAddressCanHold) {
  TemporaryDirectory base;
  std::string directory = base.path();
  while (directory.size() < 190) directory += "/" + std::string(std::min<std::size_t>(60, 190 - directory.size()), 'd');
  makeDirectories(directory);
  ASSERT_GE((directory + "/live.sock").size(), 200u);
  auto server = OccupantProcess::listening(directory, "live.sock", OccupantSocket::stream);
  EXPECT_EQ(probed(directory + "/live.sock"), State::active);
  server.stop();
  EXPECT_EQ(probed(directory + "/live.sock"), State::inactive);

  // A file name that no macOS address can hold is refused, even where Linux could bind it.
  const std::string longName(104, 'n');
  auto longServer = OccupantProcess::listening(base.path(), longName, OccupantSocket::stream);
  EXPECT_EQ(probed(base.child(longName)), State::unknown);
  EXPECT_EQ(MigrationSocketProbe::inspectLeaf(std::string(103, 'n')).state, State::missing)
      << "103 bytes is still a name the probe tries";
}

TEST(MigrationSocketProbeTest, ProbeModePrintsOneObservationAndExitsZero) {
  TemporaryDirectory directory;
  auto server = OccupantProcess::listening(directory.path(), "live.sock", OccupantSocket::stream);
  platform::ProcessRequest request;
  request.executable = corvaneBinaryPath();
  request.arguments = {"--corvane-inspect-socket", "live.sock"};
  request.workingDirectory = directory.path();
  auto run = platform::runProcess(request);
  ASSERT_TRUE(run.exit.succeeded());
  const auto json = nlohmann::json::parse(run.standardOutput);
  EXPECT_EQ(json["state"], "active");
  EXPECT_EQ(json["entry"]["kind"], "socket");
  EXPECT_EQ(run.standardOutput.find("\"state\""), 1u) << "state comes first: " << run.standardOutput;

  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {"--corvane-inspect-socket"}, {"--corvane-inspect-socket", "live.sock", "extra"},
           {"--corvane-inspect-socket", "../live.sock"}, {"--corvane-inspect-socket", ".."}}) {
    request.arguments = arguments;
    run = platform::runProcess(request);
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

TEST(MigrationSocketOwnersTest, NamesAProgramOnceHoweverManyOfItsProcessesHoldTheSocket) {
  if (access(platform::lsofExecutablePath(), X_OK) != 0) GTEST_SKIP() << "needs lsof";
  TemporaryDirectory directory;
  auto server = OccupantProcess::listening(directory.path(), "server.sock", OccupantSocket::stream, 3);
  const auto details = platform::describeProcess(server.pid());
  ASSERT_TRUE(details);
  // The server is a fork of this test program, so it carries the program's command name.
  const std::string command = lastComponent(details->executablePath).substr(0, 15);
  EXPECT_EQ(MigrationSocketOwners::lookup(directory.child("server.sock")), std::vector<std::string>{command});
  makeStaleSocket(directory.child("stale.sock"));
  EXPECT_TRUE(MigrationSocketOwners::lookup(directory.child("stale.sock")).empty()) << "nobody holds a stale socket";
  EXPECT_TRUE(MigrationSocketOwners::lookup(directory.child("missing.sock")).empty());
}

TEST(MigrationSocketOwnersTest, ParsesCommandNamesAndFailuresGiveNoNames) {
  EXPECT_EQ(MigrationSocketOwners::parse("p101\ncpostgres\nf5\np102\ncpostgres\np230\ncElectron Helper (Renderer)\n"
                                         "p231\ncrun\\x2dagent\ncstray\nk999\n"),
            (std::vector<std::string>{"Electron Helper (Renderer)", "postgres", "run-agent", "stray"}));
  EXPECT_EQ(MigrationSocketOwners::parse("cbefore-any-process\np1\n"), std::vector<std::string>{});
  EXPECT_TRUE(MigrationSocketOwners::parse("").empty());

  TemporaryDirectory directory;
  makeStaleSocket(directory.child("stale.sock"));
  const std::string socket = directory.child("stale.sock");
  EXPECT_TRUE(MigrationSocketOwners::lookup(socket, "/nonexistent/lsof").empty());
  EXPECT_TRUE(MigrationSocketOwners::lookup(socket, writeScript(directory.path(), "hanging", "echo p1; echo cnever; exec sleep 30\n")).empty())
      << "a tool that does not finish in time names nobody";
  EXPECT_TRUE(MigrationSocketOwners::lookup(socket, writeScript(directory.path(), "latin1", "printf 'p1\\ncna\\357ve\\n'\n")).empty());
}

}  // namespace
}  // namespace corvane
