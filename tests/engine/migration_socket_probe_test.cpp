// The socket probe against real sockets, through the real corvane binary in its probe mode, and
// with stand-in probe executables for a child that hangs or answers badly.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "engine/migration_socket_probe.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"

namespace corvane {
namespace {

using State = MigrationSocketProbe::State;

MigrationSocketProbe::Observation probe(const std::string& path) {
  return MigrationSocketProbe::inspect(path, std::string(corvaneBinaryPath()));
}

TEST(MigrationSocketProbeTest, TellsListeningStaleDatagramMissingAndNonSocketsApart) {
  TemporaryDirectory directory;
  auto server = OccupantProcess::listening(directory.path(), "live.sock", OccupantSocket::stream);
  auto datagram = OccupantProcess::listening(directory.path(), "datagram.sock", OccupantSocket::datagram);
  makeStaleSocket(directory.child("stale.sock"));
  writeFile(directory.child("plain.sock"), "not a socket");

  const auto live = probe(directory.child("live.sock"));
  EXPECT_EQ(live.state, State::active);
  ASSERT_TRUE(live.entry);
  EXPECT_EQ(*live.entry, *MigrationEntry::read(directory.child("live.sock"), AT_FDCWD))
      << "the entry is the socket file as read after the connect";

  const auto stale = probe(directory.child("stale.sock"));
  EXPECT_EQ(stale.state, State::inactive);
  ASSERT_TRUE(stale.entry);
  EXPECT_EQ(stale.entry->kind, MigrationEntry::Kind::socket);

  // A stream connect to a datagram server is refused with EPROTOTYPE: someone is bound there.
  EXPECT_EQ(probe(directory.child("datagram.sock")).state, State::active);

  const auto missing = probe(directory.child("gone.sock"));
  EXPECT_EQ(missing.state, State::missing);
  EXPECT_FALSE(missing.entry);

  const auto plain = probe(directory.child("plain.sock"));
  EXPECT_EQ(plain.state, State::unknown);
  EXPECT_FALSE(plain.entry);

  // Once the server is gone its socket file is stale.
  server.stop();
  EXPECT_EQ(probe(directory.child("live.sock")).state, State::inactive);
}

TEST(MigrationSocketProbeTest, ProbesSocketsWhosePathIsLongerThanAnAddressCanHold) {
  TemporaryDirectory base;
  std::string directory = base.path();
  while (directory.size() < 200 - 10) directory += "/" + std::string(std::min<std::size_t>(60, 200 - 10 - directory.size()), 'd');
  makeDirectories(directory);
  const std::string livePath = directory + "/live.sock";
  ASSERT_GE(livePath.size(), 200u);
  auto server = OccupantProcess::listening(directory, "live.sock", OccupantSocket::stream);
  EXPECT_EQ(probe(livePath).state, State::active);
  server.stop();
  EXPECT_EQ(probe(livePath).state, State::inactive);

  // A file name that no macOS address can hold is refused, even where Linux could bind it.
  const std::string longName(104, 'n');
  auto longServer = OccupantProcess::listening(base.path(), longName, OccupantSocket::stream);
  EXPECT_EQ(probe(base.child(longName)).state, State::unknown);
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

// A stand-in probe executable: a shell script with the given body.
std::string fakeProbe(const TemporaryDirectory& directory, const std::string& body) {
  const std::string path = directory.child("probe");
  writeFile(path, "#!/bin/sh\n" + body, 0755);
  return path;
}

TEST(MigrationSocketProbeTest, AChildThatHangsIsEndedReapedAndCountsAsUnknown) {
  TemporaryDirectory directory;
  makeStaleSocket(directory.child("stale.sock"));
  const std::string pidFile = directory.child("pid");
  const auto executable = fakeProbe(directory, "echo $$ > '" + pidFile + "'\nexec sleep 60\n");
  const auto observation = MigrationSocketProbe::inspect(directory.child("stale.sock"), executable);
  EXPECT_EQ(observation.state, State::unknown);
  EXPECT_FALSE(observation.entry);
  const pid_t pid = std::stoi(readFile(pidFile));
  EXPECT_EQ(kill(pid, 0), -1) << "the hanging child was ended and reaped";
  EXPECT_EQ(errno, ESRCH);
}

TEST(MigrationSocketProbeTest, BadAnswersAndMissingExecutablesAreUnknown) {
  TemporaryDirectory directory;
  makeStaleSocket(directory.child("stale.sock"));
  const std::string socket = directory.child("stale.sock");
  EXPECT_EQ(MigrationSocketProbe::inspect(socket, std::nullopt).state, State::unknown);
  EXPECT_EQ(MigrationSocketProbe::inspect(socket, directory.child("no-such-probe")).state, State::unknown);
  EXPECT_EQ(MigrationSocketProbe::inspect(socket, fakeProbe(directory, "echo '{\"state\":\"active\"}'; exit 3\n")).state,
            State::unknown)
      << "a failing child's answer is not believed";
  EXPECT_EQ(MigrationSocketProbe::inspect(socket, fakeProbe(directory, "echo '{\"state\":\"asleep\"}'\n")).state,
            State::unknown);
  EXPECT_EQ(MigrationSocketProbe::inspect(socket, fakeProbe(directory, "exit 0\n")).state, State::unknown);
  EXPECT_EQ(MigrationSocketProbe::inspect(socket, fakeProbe(directory, "echo '{\"state\":\"inactive\"}'\n")).state,
            State::inactive);
}

TEST(MigrationSocketProbeTest, TheChildRunsInTheSocketsDirectoryWithACleanedEnvironment) {
  TemporaryDirectory directory;
  makeStaleSocket(directory.child("stale.sock"));
  // Answers "inactive" only when the arguments, directory and environment are as promised.
  const auto executable = fakeProbe(directory,
                                    "[ \"$1\" = --corvane-inspect-socket ] && [ \"$2\" = stale.sock ] && [ $# -eq 2 ] &&"
                                    " [ -S \"$2\" ] && [ -z \"${DYLD_INSERT_LIBRARIES+set}\" ] &&"
                                    " [ -z \"${XCInjectBundle+set}\" ] && [ \"$LLVM_PROFILE_FILE\" = /dev/null ] &&"
                                    " [ \"$CORVANE_KEPT\" = yes ] && { echo '{\"state\":\"inactive\"}'; exit 0; }\n"
                                    "echo '{\"state\":\"active\"}'\n");
  setenv("DYLD_INSERT_LIBRARIES", "/tmp/inject.dylib", 1);
  setenv("XCInjectBundle", "/tmp/bundle", 1);
  setenv("CORVANE_KEPT", "yes", 1);
  const auto observation = MigrationSocketProbe::inspect(directory.child("stale.sock"), executable);
  unsetenv("DYLD_INSERT_LIBRARIES");
  unsetenv("XCInjectBundle");
  unsetenv("CORVANE_KEPT");
  EXPECT_EQ(observation.state, State::inactive);
}

TEST(MigrationSocketProbeTest, ObservationJsonKeepsItsShape) {
  MigrationSocketProbe::Observation observation{State::inactive, MigrationEntry{}};
  observation.entry->kind = MigrationEntry::Kind::socket;
  observation.entry->inode = 77;
  const auto json = MigrationSocketProbe::toJson(observation);
  EXPECT_EQ(json.begin().key(), "state");
  EXPECT_EQ(MigrationSocketProbe::fromJson(nlohmann::json::parse(json.dump())), observation);
  EXPECT_EQ(MigrationSocketProbe::toJson({State::missing, std::nullopt}).dump(), "{\"state\":\"missing\"}");
  EXPECT_THROW(MigrationSocketProbe::fromJson(nlohmann::json::parse("{\"entry\":{}}")), std::exception);
}

}  // namespace
}  // namespace corvane
