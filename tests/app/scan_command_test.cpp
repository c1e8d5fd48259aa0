// `corvane scan` and `corvane check` as a user runs them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "fixtures/corvane_binary.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/file_system.h"
#include "platform/process_details.h"
#include "settings/localization.h"
#include "support/paths.h"

namespace corvane {
namespace {

TEST(ScanCommandTest, JsonIsTheManifestAndSummaryCountsHardLinksOnce) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  writeFile(volume->child("outside.txt"), "outside");
  buildSampleTree(volume->child("Sample.app"),
                  {.fifo = true, .staleSocket = true, .sparseFile = true, .extendedAttributes = true});
  auto json = runCorvane({"scan", volume->child("Sample.app"), "--json"});
  ASSERT_EQ(json.exitStatus, 0) << json.standardError;
  auto manifest = nlohmann::json::parse(json.standardOutput);
  EXPECT_EQ(manifest[""]["kind"], "directory");
  EXPECT_EQ(manifest["Contents/pipe"]["kind"], "fifo");
  EXPECT_EQ(manifest["Contents/Resources/deep/climbs-out"]["link"], "../../../../outside.txt");
  EXPECT_EQ(manifest["Contents/hardlink.txt"]["inode"], manifest["Contents/Resources/deep/file3.txt"]["inode"]);

  auto summary = runCorvane({"scan", volume->child("Sample.app")});
  ASSERT_EQ(summary.exitStatus, 0) << summary.standardError;
  EXPECT_NE(summary.standardOutput.find(volume->child("outside.txt")), std::string::npos)
      << "the climbing link is listed with its new absolute target\n"
      << summary.standardOutput;
}

TEST(ScanCommandTest, WorksOnAFatVolume) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::fat);
  buildSampleTree(volume->child("Plain"), {.hardLinks = false, .symbolicLinks = false});
  auto result = runCorvane({"scan", volume->child("Plain"), "--json"});
  ASSERT_EQ(result.exitStatus, 0) << result.standardError;
  auto manifest = nlohmann::json::parse(result.standardOutput);
  EXPECT_EQ(manifest["Contents/Resources/deep/file5.txt"]["size"], 5 * 37 + 1);
}

TEST(ScanCommandTest, MissingUnreadableAndLockedItemsGiveAnErrorWithThePathAndStatusOne) {
  TemporaryDirectory dir;
  auto missing = runCorvane({"scan", dir.child("nothing-here")});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_NE(missing.standardError.find(dir.child("nothing-here")), std::string::npos);
  EXPECT_TRUE(missing.standardOutput.empty());

  if (geteuid() == 0) {  // as an ordinary user, a file only its owner may read
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    const std::string item = dir.child("Item");
    writeFile(item + "/readable", "x", 0644);
    writeFile(item + "/secret", "x", 0600);
    ASSERT_EQ(chown(item.c_str(), 65534, 65534), 0);
    ASSERT_EQ(chown((item + "/readable").c_str(), 65534, 65534), 0);
    auto result = runCorvane({"scan", item}, {.asUser = 65534});
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.standardError.find(item + "/secret"), std::string::npos) << result.standardError;
  }

  const std::string locked = dir.child("Locked");
  writeFile(locked + "/frozen", "x");
  try {
    platform::setFileFlags(locked + "/frozen", platform::kSystemImmutable);
  } catch (const std::exception& unsupported) {
    GTEST_SKIP() << "cannot make immutable files here: " << unsupported.what();
  }
  auto lockedResult = runCorvane({"scan", locked});
  EXPECT_EQ(lockedResult.exitStatus, 1);
  EXPECT_NE(lockedResult.standardError.find(locked + "/frozen"), std::string::npos) << lockedResult.standardError;
}

TEST(CheckCommandTest, ReportsWhatBlocksEachItemAndRefusesMissingPathsAndLinks) {
  TemporaryDirectory scratch;
  // So long a path that the server binds its socket by a name relative to the folder.
  const std::string served = scratch.child("Served " + std::string(100, 's'));
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
  // The server is a fork of the test program and carries its short command name.
  const auto serverDetails = platform::describeProcess(server.pid());
  ASSERT_TRUE(serverDetails);
  const std::string serverName = lastComponent(serverDetails->executablePath).substr(0, 15);
  EXPECT_NE(servedRun.standardOutput.find(localizedFormat("migration.preflight.used_by", "api.sock", serverName)),
            std::string::npos)
      << servedRun.standardOutput;
  EXPECT_NE(servedRun.standardOutput.find(localized("cli.check.blocked")), std::string::npos);

  auto busyRun = runCorvane({"check", busy});
  EXPECT_EQ(busyRun.exitStatus, 3) << busyRun.standardOutput << busyRun.standardError;
  EXPECT_NE(busyRun.standardOutput.find(std::to_string(worker.pid())), std::string::npos) << busyRun.standardOutput;
  EXPECT_NE(busyRun.standardOutput.find(localized("migration.occupancy.reason_working_directory")), std::string::npos);

  auto cleanRun = runCorvane({"check", clean, stale});
  EXPECT_EQ(cleanRun.exitStatus, 0) << cleanRun.standardOutput << cleanRun.standardError;
  EXPECT_NE(cleanRun.standardOutput.find(localizedFormat("cli.check.inactive_socket", "old.sock")), std::string::npos);
  EXPECT_EQ(cleanRun.standardOutput.find(localized("cli.check.blocked")), std::string::npos);

  EXPECT_EQ(runCorvane({"check", clean, served}).exitStatus, 3);
  // Nothing was changed: the stale socket is still there.
  EXPECT_TRUE(platform::statNoFollow(AT_FDCWD, stale + "/old.sock"));

  worker.stop();
  auto idleRun = runCorvane({"check", busy}, {.workingDirectory = busy + "/inner"});
  EXPECT_EQ(idleRun.exitStatus, 0) << "idle once the worker left, Corvane's own working folder aside\n"
                                   << idleRun.standardOutput;

  // Missing paths and links are errors.
  auto missing = runCorvane({"check", clean, scratch.child("Gone")});
  EXPECT_EQ(missing.exitStatus, 1);
  EXPECT_NE(missing.standardError.find(scratch.child("Gone")), std::string::npos) << missing.standardError;
  ASSERT_EQ(symlink(clean.c_str(), scratch.child("Link").c_str()), 0);
  EXPECT_EQ(runCorvane({"check", scratch.child("Link")}).exitStatus, 1);
  EXPECT_EQ(runCorvane({"check"}).exitStatus, 64);
}

}  // namespace
}  // namespace corvane
