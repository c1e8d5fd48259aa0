// Naming the processes behind a socket: real lsof over real servers, and the parser on the
// tool's own output form.
#include <gtest/gtest.h>
#include <unistd.h>

#include "engine/migration_socket_owners.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/open_file_lister.h"
#include "platform/process_details.h"
#include "support/paths.h"

namespace corvane {
namespace {

TEST(MigrationSocketOwnersTest, NamesAProgramOnceHoweverManyOfItsProcessesHoldTheSocket) {
  if (access(platform::lsofExecutablePath(), X_OK) != 0) GTEST_SKIP() << "needs lsof";
  TemporaryDirectory directory;
  auto server = OccupantProcess::listening(directory.path(), "server.sock", OccupantSocket::stream, 3);
  const auto details = platform::describeProcess(server.pid());
  ASSERT_TRUE(details);
  // The server is a fork of this test program, so it carries the program's command name.
  const std::string command = lastComponent(details->executablePath).substr(0, 15);
  EXPECT_EQ(MigrationSocketOwners::lookup(directory.child("server.sock")), std::vector<std::string>{command});
}

TEST(MigrationSocketOwnersTest, FailuresGiveNoNames) {
  TemporaryDirectory directory;
  makeStaleSocket(directory.child("stale.sock"));
  EXPECT_TRUE(MigrationSocketOwners::lookup(directory.child("stale.sock"), "/nonexistent/lsof").empty());
  if (access(platform::lsofExecutablePath(), X_OK) == 0) {
    EXPECT_TRUE(MigrationSocketOwners::lookup(directory.child("stale.sock")).empty()) << "nobody holds a stale socket";
    EXPECT_TRUE(MigrationSocketOwners::lookup(directory.child("missing.sock")).empty());
  }
  const std::string hanging = directory.child("lsof");
  writeFile(hanging, "#!/bin/sh\necho p1; echo cnever; exec sleep 30\n", 0755);
  EXPECT_TRUE(MigrationSocketOwners::lookup(directory.child("stale.sock"), hanging).empty())
      << "a tool that does not finish in time names nobody";
  const std::string notUtf8 = directory.child("lsof-latin1");
  writeFile(notUtf8, "#!/bin/sh\nprintf 'p1\\ncna\\357ve\\n'\n", 0755);
  EXPECT_TRUE(MigrationSocketOwners::lookup(directory.child("stale.sock"), notUtf8).empty());
}

TEST(MigrationSocketOwnersTest, ParsesCommandNamesFollowingProcessLines) {
  const std::string output =
      "p101\ncpostgres\nf5\n"
      "p102\ncpostgres\n"
      "p230\ncElectron Helper (Renderer)\n"
      "p231\ncrun\\x2dagent\n"
      "cstray\n"
      "k999\n";
  EXPECT_EQ(MigrationSocketOwners::parse(output),
            (std::vector<std::string>{"Electron Helper (Renderer)", "postgres", "run-agent", "stray"}));
  EXPECT_EQ(MigrationSocketOwners::parse("cbefore-any-process\np1\n"), std::vector<std::string>{});
  EXPECT_TRUE(MigrationSocketOwners::parse("").empty());
}

}  // namespace
}  // namespace corvane
