// `corvane check` as a user runs it: items with a live socket server, with a process working
// inside, with a stale socket, clean ones, and missing paths.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "fixtures/corvane_binary.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "support/localization.h"

namespace corvane {
namespace {

TEST(CheckCommandTest, ReportsWhatBlocksEachItem) {
  TemporaryDirectory scratch;
  const std::string served = scratch.child("Served");
  const std::string busy = scratch.child("Busy Folder");
  const std::string clean = scratch.child("Clean");
  const std::string stale = scratch.child("Stale");
  for (const auto& item : {served, busy + "/inner", clean, stale}) makeDirectories(item);
  writeFile(clean + "/notes.txt", "notes\n");
  writeFile(busy + "/inner/file.txt", "file\n");
  makeStaleSocket(stale + "/old.sock");
  auto server = OccupantProcess::listening(served, "api.sock", OccupantSocket::stream);
  auto worker = OccupantProcess::workingIn(busy + "/inner");

  auto servedRun = runCorvane({"check", served});
  EXPECT_EQ(servedRun.exitStatus, 3) << servedRun.standardOutput << servedRun.standardError;
  EXPECT_NE(servedRun.standardOutput.find("api.sock"), std::string::npos) << servedRun.standardOutput;
  EXPECT_NE(servedRun.standardOutput.find(localized("cli.check.blocked")), std::string::npos);

  auto busyRun = runCorvane({"check", busy});
  EXPECT_EQ(busyRun.exitStatus, 3) << busyRun.standardOutput << busyRun.standardError;
  EXPECT_NE(busyRun.standardOutput.find(std::to_string(worker.pid())), std::string::npos) << busyRun.standardOutput;
  EXPECT_NE(busyRun.standardOutput.find(localized("migration.occupancy.reason_working_directory")), std::string::npos);

  auto cleanRun = runCorvane({"check", clean, stale});
  EXPECT_EQ(cleanRun.exitStatus, 0) << cleanRun.standardOutput << cleanRun.standardError;
  EXPECT_NE(cleanRun.standardOutput.find(localizedFormat("cli.check.inactive_socket", "old.sock")), std::string::npos);
  EXPECT_EQ(cleanRun.standardOutput.find(localized("cli.check.blocked")), std::string::npos);

  auto mixed = runCorvane({"check", clean, served});
  EXPECT_EQ(mixed.exitStatus, 3);

  // Nothing was changed: the server still serves, the stale socket is still there.
  EXPECT_EQ(runCorvane({"check", served}).exitStatus, 3);
  EXPECT_EQ(runCorvane({"check", stale}).exitStatus, 0);

  worker.stop();
  EXPECT_EQ(runCorvane({"check", busy}).exitStatus, 0) << "idle once the worker left";
}

TEST(CheckCommandTest, MissingPathsAndLinksAreErrors) {
  TemporaryDirectory scratch;
  makeDirectories(scratch.child("Clean"));
  auto missing = runCorvane({"check", scratch.child("Clean"), scratch.child("Gone")});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_NE(missing.standardError.find(scratch.child("Gone")), std::string::npos) << missing.standardError;
  ASSERT_EQ(symlink(scratch.child("Clean").c_str(), scratch.child("Link").c_str()), 0);
  EXPECT_EQ(runCorvane({"check", scratch.child("Link")}).exitStatus, 1);
  EXPECT_EQ(runCorvane({"check"}).exitStatus, 64);
}

}  // namespace
}  // namespace corvane
