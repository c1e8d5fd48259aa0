// Both open-file listers, the native scan and real lsof, run over the same live processes and
// must report the same references to an item, with the reasons the check gives them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "engine/migration_open_files.h"
#include "engine/migration_test_support.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/open_file_lister.h"
#include "platform/process.h"

namespace corvane {
namespace {

using Reason = MigrationOpenFiles::Reason;
using Reference = MigrationOpenFiles::Reference;
using Paths = std::multimap<std::string, Reason>;

// lsof warns about every mount it cannot stat anywhere on the machine (a FUSE volume whose driver
// died, say). Those lines say nothing about the item under test, so only they are set aside.
std::string errorsAboutTheItem(const std::string& standardError, const std::string& item) {
  std::string kept;
  bool continuingWarning = false;
  for (std::size_t start = 0, end; start < standardError.size(); start = end + 1) {
    end = std::min(standardError.find('\n', start), standardError.size());
    const std::string line = standardError.substr(start, end - start);
    const bool foreignMount = line.rfind("lsof: WARNING: can't stat() ", 0) == 0 && line.find(item) == std::string::npos;
    const bool skip = foreignMount || (continuingWarning && line.find("Output information may be incomplete") != std::string::npos);
    continuingWarning = skip && foreignMount;
    if (!skip) kept += line + "\n";
  }
  return kept;
}

std::string describe(const std::vector<Reference>& references) {
  std::string text;
  for (const auto& r : references) {
    text += std::to_string(r.pid) + " " + r.command + " f=" + r.descriptor + " a=" + r.access + " t=" + r.type +
            " i=" + std::to_string(r.inode) + " n=" + r.name + " -> " + r.itemPath + " (" +
            std::string(MigrationOpenFiles::reasonName(r.reason)) + (r.throughOtherHardLink ? ", alias" : "") + ")\n";
  }
  return text;
}

// Runs the native scan (whole and filtered by the item's files) and lsof over `item`, expects
// all three to agree, and returns the native references.
std::vector<Reference> listersAgreeOn(const std::string& item) {
  const auto index = MigrationOpenFiles::fileIndex(snapshotOf(item));
  auto referencesOf = [&](const MigrationOpenFiles::Result& run) {
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(errorsAboutTheItem(run.standardError, item), "");
    auto references = MigrationOpenFiles::references(run.standardOutput, item, index);
    std::sort(references.begin(), references.end(), [](const Reference& a, const Reference& b) {
      return std::tie(a.pid, a.descriptor, a.inode, a.name) < std::tie(b.pid, b.descriptor, b.inode, b.name);
    });
    return references;
  };
  const auto native = referencesOf(MigrationOpenFiles::inspectNatively());
  const auto filtered = referencesOf(MigrationOpenFiles::inspectNatively(index));
  const auto lsof = referencesOf(MigrationOpenFiles::inspectWithLsof(platform::lsofExecutablePath()));
  EXPECT_EQ(native, lsof) << "native:\n" << describe(native) << "lsof:\n" << describe(lsof);
  EXPECT_EQ(filtered, lsof) << "filtered:\n" << describe(filtered) << "lsof:\n" << describe(lsof);
  return native;
}

Paths byPath(const std::vector<Reference>& references, pid_t pid) {
  Paths result;
  for (const auto& reference : references) {
    if (reference.pid == pid) result.emplace(reference.itemPath, reference.reason);
  }
  return result;
}

#define CORVANE_NEEDS_LSOF() \
  if (access(platform::lsofExecutablePath(), X_OK) != 0) GTEST_SKIP() << "needs lsof at " << platform::lsofExecutablePath()

TEST(MigrationOpenFilesListersTest, NativeScanAndLsofFindTheSameOccupantsForTheSameReasons) {
  CORVANE_NEEDS_LSOF();
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  makeDirectories(item + "/work/deeper");
  writeFile(item + "/read.txt", "read me\n");
  writeFile(item + "/log.txt", "");
  writeFile(item + "/library.bin", std::string(8192, 'L'));
  writeFile(item + "/mine.txt", "mine\n");
  // A name with a newline, a tab, a backslash, UTF-8 and a control character: lsof escapes
  // every one of them, and the name must come back as the real path.
  const std::string oddName = "odd\nname\twith\\ and \xc3\xbc \x01.txt";
  writeFile(item + "/" + oddName, "odd\n");
  writeFile(item + "/linked.txt", "linked\n");
  ASSERT_EQ(link((item + "/linked.txt").c_str(), scratch.child("outside-link.txt").c_str()), 0);
  ASSERT_EQ(mkfifo((item + "/pipe").c_str(), 0600), 0);
  writeFile(item + "/bin/sleeper", readFile("/bin/sleep"), 0755);
  writeFile(scratch.child("outside.txt"), "not in the item\n");

  auto reader = OccupantProcess::holdingFile(item + "/read.txt", O_RDONLY);
  auto writer = OccupantProcess::holdingFile(item + "/log.txt", O_WRONLY | O_APPEND);
  auto worker = OccupantProcess::workingIn(item + "/work/deeper");
  auto runner = OccupantProcess::running(item + "/bin/sleeper", {"600"}, scratch.path());
  auto mapper = OccupantProcess::mapping(item + "/library.bin");
  auto fifoReader = OccupantProcess::readingFifo(item + "/pipe");
  auto oddReader = OccupantProcess::holdingFile(item + "/" + oddName, O_RDWR);
  auto aliasReader = OccupantProcess::holdingFile(scratch.child("outside-link.txt"), O_RDONLY);
  auto bystander = OccupantProcess::holdingFile(scratch.child("outside.txt"), O_RDONLY);
  // The test process itself: a check run from inside Corvane sees Corvane's own descriptors too.
  const int mine = open((item + "/mine.txt").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(mine, 0);

  const auto native = listersAgreeOn(item);
  close(mine);
  EXPECT_EQ(byPath(native, reader.pid()), (Paths{{"read.txt", Reason::read_only}}));
  EXPECT_EQ(byPath(native, writer.pid()), (Paths{{"log.txt", Reason::writable}}));
  EXPECT_EQ(byPath(native, worker.pid()), (Paths{{"work/deeper", Reason::working_directory}}));
  EXPECT_EQ(byPath(native, runner.pid()), (Paths{{"bin/sleeper", Reason::runtime}}));
  EXPECT_EQ(byPath(native, mapper.pid()), (Paths{{"library.bin", Reason::runtime}}));
  EXPECT_EQ(byPath(native, fifoReader.pid()), (Paths{{"pipe", Reason::endpoint}}));
  EXPECT_EQ(byPath(native, oddReader.pid()), (Paths{{oddName, Reason::writable}}));
  EXPECT_EQ(byPath(native, aliasReader.pid()), (Paths{{"linked.txt", Reason::read_only}}));
  EXPECT_EQ(byPath(native, getpid()), (Paths{{"mine.txt", Reason::read_only}}));
  EXPECT_TRUE(byPath(native, bystander.pid()).empty());
  for (const auto& reference : native) {
    if (reference.pid == oddReader.pid()) { EXPECT_EQ(reference.name, item + "/" + oddName); }
    if (reference.pid == aliasReader.pid()) { EXPECT_EQ(reference.name, scratch.child("outside-link.txt")); }
    EXPECT_EQ(reference.throughOtherHardLink, reference.pid == aliasReader.pid()) << reference.name;
  }
}

TEST(MigrationOpenFilesListersTest, MappedFileOnABtrfsSubvolumeIsFoundByBothListers) {
  // A btrfs subvolume's files are mapped under the file system's device while stat reports the
  // subvolume's; lsof notes the path's device, and that note finds the item's file.
  CORVANE_NEEDS_LSOF();
  CORVANE_TEST_VOLUME(volume, VolumeKind::btrfs);
  platform::ProcessRequest request;
  request.executable = "btrfs";
  request.arguments = {"subvolume", "create", volume->child("Item")};
  if (!platform::runProcess(request).exit.succeeded()) GTEST_SKIP() << "btrfs subvolume create is not available";
  const std::string item = volume->child("Item");
  writeFile(item + "/library.bin", std::string(8192, 'B'));
  auto mapper = OccupantProcess::mapping(item + "/library.bin");
  EXPECT_EQ(byPath(listersAgreeOn(item), mapper.pid()), (Paths{{"library.bin", Reason::runtime}}));
}

TEST(MigrationOpenFilesListersTest, RequireIdlePassesOnceTheLastOccupantLeaves) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  writeFile(item + "/held.txt", "held\n");
  auto holder = std::make_unique<OccupantProcess>(OccupantProcess::holdingFile(item + "/held.txt", O_RDONLY));
  const auto index = MigrationOpenFiles::fileIndex(snapshotOf(item));
  int rechecks = 0;
  // The occupant quits while the check waits; the re-check finds the item idle.
  auto quitThenRecheck = [&](int attempt) {
    holder.reset();
    return attempt <= 1;
  };
  EXPECT_NO_THROW(MigrationOpenFiles::requireIdle(item, index, MigrationOpenFiles::defaultInspect(), quitThenRecheck,
                                                  [&] { ++rechecks; }, MigrationOpenFiles::defaultIdentify()));
  EXPECT_EQ(rechecks, 1);

  auto stubborn = OccupantProcess::holdingFile(item + "/held.txt", O_RDONLY);
  try {
    MigrationOpenFiles::requireIdle(item, index, MigrationOpenFiles::defaultInspect(),
                                    MigrationOpenFiles::waitBetweenRechecks(2, std::chrono::milliseconds(10)),
                                    [&] { ++rechecks; }, MigrationOpenFiles::defaultIdentify());
    FAIL() << "an item held open must block";
  } catch (const MigrationOpenFiles::Blocked& blocked) {
    EXPECT_EQ(rechecks, 3);
    ASSERT_EQ(blocked.groups().size(), 1u);
    EXPECT_EQ(blocked.groups()[0].pids, std::vector<pid_t>{stubborn.pid()});
    EXPECT_EQ(blocked.source(), item);
    EXPECT_EQ(blocked.key(), "migration.occupancy.header");
  }
}

}  // namespace
}  // namespace corvane
