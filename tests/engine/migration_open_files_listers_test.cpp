// Both open-file listers, the native scan and real lsof, run over the same live processes and
// must report the same references to an item, with the reasons the check gives them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>

#include "engine/migration_integrity_verifier.h"
#include "engine/migration_open_files.h"
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

bool lsofAvailable() { return access(platform::lsofExecutablePath(), X_OK) == 0; }

std::vector<Reference> sorted(std::vector<Reference> references) {
  std::sort(references.begin(), references.end(), [](const Reference& a, const Reference& b) {
    return std::tie(a.pid, a.descriptor, a.inode, a.name) < std::tie(b.pid, b.descriptor, b.inode, b.name);
  });
  return references;
}

// lsof warns about every mount it cannot stat anywhere on the machine (a FUSE volume whose driver
// died, say). Those lines say nothing about the item under test, so only they are set aside.
std::string errorsAboutTheItem(const std::string& standardError, const std::string& item) {
  std::string kept;
  std::size_t start = 0;
  bool continuingWarning = false;
  while (start < standardError.size()) {
    auto end = standardError.find('\n', start);
    if (end == std::string::npos) end = standardError.size();
    const std::string line = standardError.substr(start, end - start);
    start = end + 1;
    const bool foreignMount = line.rfind("lsof: WARNING: can't stat() ", 0) == 0 && line.find(item) == std::string::npos;
    if (foreignMount || (continuingWarning && line.find("Output information may be incomplete") != std::string::npos)) {
      continuingWarning = foreignMount;
      continue;
    }
    continuingWarning = false;
    kept += line + "\n";
  }
  return kept;
}

std::vector<Reference> referencesOf(const MigrationOpenFiles::Result& run, const std::string& item,
                                    const MigrationOpenFiles::FileIndex& index) {
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(errorsAboutTheItem(run.standardError, item), "");
  return sorted(MigrationOpenFiles::references(run.standardOutput, item, index));
}

// The references of one process, by the item path and reason they name.
std::multimap<std::string, Reason> byPath(const std::vector<Reference>& references, pid_t pid) {
  std::multimap<std::string, Reason> result;
  for (const auto& reference : references) {
    if (reference.pid == pid) result.emplace(reference.itemPath, reference.reason);
  }
  return result;
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

void copyExecutable(const std::string& from, const std::string& to) {
  platform::ProcessRequest request;
  request.executable = "/bin/cp";
  request.arguments = {from, to};
  ASSERT_TRUE(platform::runProcess(request).exit.succeeded());
}

TEST(MigrationOpenFilesListersTest, NativeScanAndLsofFindTheSameOccupantsForTheSameReasons) {
  if (!lsofAvailable()) GTEST_SKIP() << "needs lsof at " << platform::lsofExecutablePath();
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  makeDirectories(item + "/work/deeper");
  makeDirectories(item + "/bin");
  writeFile(item + "/read.txt", "read me\n");
  writeFile(item + "/log.txt", "");
  writeFile(item + "/library.bin", std::string(8192, 'L'));
  // A name with a newline, a tab, a backslash, UTF-8 and a control character: lsof escapes
  // every one of them, and the name must come back as the real path.
  const std::string oddName = "odd\nname\twith\\ and \xc3\xbc \x01.txt";
  writeFile(item + "/" + oddName, "odd\n");
  writeFile(item + "/linked.txt", "linked\n");
  ASSERT_EQ(link((item + "/linked.txt").c_str(), scratch.child("outside-link.txt").c_str()), 0);
  ASSERT_EQ(mkfifo((item + "/pipe").c_str(), 0600), 0);
  copyExecutable("/bin/sleep", item + "/bin/sleeper");
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

  const auto manifest =
      MigrationIntegrityVerifier::snapshot(item, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
  const auto index = MigrationOpenFiles::fileIndex(manifest);
  const auto native = referencesOf(MigrationOpenFiles::inspectNatively(), item, index);
  const auto filtered = referencesOf(MigrationOpenFiles::inspectNatively(index), item, index);
  const auto lsof = referencesOf(MigrationOpenFiles::inspectWithLsof(platform::lsofExecutablePath()), item, index);

  EXPECT_EQ(native, lsof) << "native:\n" << describe(native) << "lsof:\n" << describe(lsof);
  EXPECT_EQ(filtered, lsof) << "filtered:\n" << describe(filtered) << "lsof:\n" << describe(lsof);

  using Paths = std::multimap<std::string, Reason>;
  EXPECT_EQ(byPath(native, reader.pid()), (Paths{{"read.txt", Reason::read_only}}));
  EXPECT_EQ(byPath(native, writer.pid()), (Paths{{"log.txt", Reason::writable}}));
  EXPECT_EQ(byPath(native, worker.pid()), (Paths{{"work/deeper", Reason::working_directory}}));
  EXPECT_EQ(byPath(native, runner.pid()), (Paths{{"bin/sleeper", Reason::runtime}}));
  EXPECT_EQ(byPath(native, mapper.pid()), (Paths{{"library.bin", Reason::runtime}}));
  EXPECT_EQ(byPath(native, fifoReader.pid()), (Paths{{"pipe", Reason::endpoint}}));
  EXPECT_EQ(byPath(native, oddReader.pid()), (Paths{{oddName, Reason::writable}}));
  EXPECT_EQ(byPath(native, aliasReader.pid()), (Paths{{"linked.txt", Reason::read_only}}));
  EXPECT_TRUE(byPath(native, bystander.pid()).empty());

  for (const auto& reference : native) {
    if (reference.pid == oddReader.pid()) {
      EXPECT_EQ(reference.name, item + "/" + oddName);
    }
    if (reference.pid == aliasReader.pid()) {
      EXPECT_TRUE(reference.throughOtherHardLink);
      EXPECT_EQ(reference.name, scratch.child("outside-link.txt"));
    } else {
      EXPECT_FALSE(reference.throughOtherHardLink) << reference.name;
    }
  }
}

TEST(MigrationOpenFilesListersTest, TheCallingProcessItselfIsSeen) {
  // The test process itself opens a file of the item: a check run from inside Corvane sees
  // Corvane's own descriptors like any other process's.
  if (!lsofAvailable()) GTEST_SKIP() << "needs lsof at " << platform::lsofExecutablePath();
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  makeDirectories(item);
  writeFile(item + "/mine.txt", "mine\n");
  const int fd = open((item + "/mine.txt").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const auto manifest =
      MigrationIntegrityVerifier::snapshot(item, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
  const auto index = MigrationOpenFiles::fileIndex(manifest);
  const auto native = referencesOf(MigrationOpenFiles::inspectNatively(), item, index);
  const auto filtered = referencesOf(MigrationOpenFiles::inspectNatively(index), item, index);
  const auto lsof = referencesOf(MigrationOpenFiles::inspectWithLsof(platform::lsofExecutablePath()), item, index);
  close(fd);
  EXPECT_EQ(native, lsof) << "native:\n" << describe(native) << "lsof:\n" << describe(lsof);
  EXPECT_EQ(filtered, lsof) << "filtered:\n" << describe(filtered) << "lsof:\n" << describe(lsof);
  EXPECT_EQ(byPath(native, getpid()), (std::multimap<std::string, Reason>{{"mine.txt", Reason::read_only}}));
}

TEST(MigrationOpenFilesListersTest, MappedFileOnABtrfsSubvolumeIsFoundByBothListers) {
  // A btrfs subvolume's files are mapped under the file system's device while stat reports the
  // subvolume's; lsof notes the path's device, and that note finds the item's file.
  if (!lsofAvailable()) GTEST_SKIP() << "needs lsof at " << platform::lsofExecutablePath();
  CORVANE_TEST_VOLUME(volume, VolumeKind::btrfs);
  platform::ProcessRequest request;
  request.executable = "btrfs";
  request.arguments = {"subvolume", "create", volume->child("Item")};
  if (!platform::runProcess(request).exit.succeeded()) GTEST_SKIP() << "btrfs subvolume create is not available";
  const std::string item = volume->child("Item");
  writeFile(item + "/library.bin", std::string(8192, 'B'));
  auto mapper = OccupantProcess::mapping(item + "/library.bin");

  const auto manifest =
      MigrationIntegrityVerifier::snapshot(item, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
  const auto index = MigrationOpenFiles::fileIndex(manifest);
  const auto native = referencesOf(MigrationOpenFiles::inspectNatively(), item, index);
  const auto filtered = referencesOf(MigrationOpenFiles::inspectNatively(index), item, index);
  const auto lsof = referencesOf(MigrationOpenFiles::inspectWithLsof(platform::lsofExecutablePath()), item, index);
  EXPECT_EQ(native, lsof) << "native:\n" << describe(native) << "lsof:\n" << describe(lsof);
  EXPECT_EQ(filtered, lsof) << "filtered:\n" << describe(filtered) << "lsof:\n" << describe(lsof);
  EXPECT_EQ(byPath(native, mapper.pid()), (std::multimap<std::string, Reason>{{"library.bin", Reason::runtime}}));
}

TEST(MigrationOpenFilesListersTest, RequireIdlePassesOnceTheLastOccupantLeaves) {
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  makeDirectories(item);
  writeFile(item + "/held.txt", "held\n");
  auto holder = std::make_unique<OccupantProcess>(OccupantProcess::holdingFile(item + "/held.txt", O_RDONLY));
  const auto manifest =
      MigrationIntegrityVerifier::snapshot(item, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
  const auto index = MigrationOpenFiles::fileIndex(manifest);

  int rechecks = 0;
  // The occupant quits while the check waits; the re-check finds the item idle.
  auto quitThenRecheck = [&](int attempt) {
    if (attempt > 1) return false;
    holder.reset();
    return true;
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
