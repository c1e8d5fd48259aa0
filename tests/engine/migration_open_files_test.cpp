// Reading the lister's field output, the fail-safe rules of one check, grouping, and the lsof
// lister's own run (arguments, environment, bounds) through stand-in executables.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "engine/migration_open_files.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/open_file_fields.h"
#include "platform/open_file_lister.h"
#include "platform/posix_error.h"

namespace corvane {
namespace {

using Reason = MigrationOpenFiles::Reason;
using GroupKind = MigrationOpenFiles::GroupKind;

std::string fields(std::initializer_list<std::string_view> values) {
  std::string text;
  for (auto value : values) {
    text += value;
    text += '\0';
  }
  text += '\n';
  return text;
}

MigrationEntry entry(MigrationEntry::Kind kind, std::int32_t device, std::uint64_t inode) {
  MigrationEntry result;
  result.kind = kind;
  result.device = device;
  result.inode = inode;
  return result;
}

// An item at /Items/App.app with a few files, as a manifest on device 0x1000007.
MigrationOpenFiles::FileIndex sampleIndex() {
  MigrationManifest manifest;
  manifest[""] = entry(MigrationEntry::Kind::directory, 0x1000007, 100);
  manifest["Contents"] = entry(MigrationEntry::Kind::directory, 0x1000007, 101);
  manifest["Contents/MacOS/App"] = entry(MigrationEntry::Kind::regular, 0x1000007, 102);
  manifest["Contents/data.db"] = entry(MigrationEntry::Kind::regular, 0x1000007, 103);
  manifest["Contents/alias.db"] = entry(MigrationEntry::Kind::regular, 0x1000007, 103);
  manifest["Contents/odd name\n.txt"] = entry(MigrationEntry::Kind::regular, 0x1000007, 104);
  manifest["Contents/run.sock"] = entry(MigrationEntry::Kind::socket, 0x1000007, 105);
  manifest["Contents/subvolume.lib"] = entry(MigrationEntry::Kind::regular, static_cast<std::int32_t>(platform::deviceNumber(0, 41)), 257);
  return MigrationOpenFiles::fileIndex(manifest);
}

TEST(MigrationOpenFilesTest, FileIndexKeepsTheFirstPathAndKnowsHardLinks) {
  const auto index = sampleIndex();
  const auto& shared = index.at({0x1000007, 103});
  EXPECT_EQ(shared.relativePath, "Contents/alias.db");  // the manifest's order
  EXPECT_EQ(shared.otherPaths, std::vector<std::string>{"Contents/data.db"});
  EXPECT_EQ(index.at({0x1000007, 100}).relativePath, "");
}

TEST(MigrationOpenFilesTest, ParsesFieldOutputAndKeepsOnlyTheItemsFiles) {
  const std::string source = "/Items/App.app";
  std::string output;
  output += fields({"p311", "cApp"});
  output += fields({"fcwd", "a ", "tDIR", "D0x1000007", "i100", "n/Items/App.app"});
  output += fields({"ftxt", "a ", "tREG", "D0x1000007", "i102", "n/Items/App.app/Contents/MacOS/App"});
  output += fields({"fmem", "a ", "tREG", "D0x1000004", "i9", "n/usr/lib/dyld"});
  output += fields({"f3", "au", "tREG", "D0x1000007", "i103", "n/Items/App.app/Contents/data.db"});
  output += fields({"f4", "ar", "tREG", "D0x1000007", "i104", "n/Items/App.app/Contents/odd name\\n.txt"});
  output += fields({"f5", "au", "tunix", "D0x1000007", "i105", "n/Items/App.app/Contents/run.sock"});
  output += fields({"f6", "ar", "tCHR", "D0x3000000", "i3", "n/dev/null"});
  // lsof lists a process once more for each thread; those repeats are the same references.
  output += fields({"p311", "cApp"});
  output += fields({"fcwd", "a ", "tDIR", "D0x1000007", "i100", "n/Items/App.app"});
  output += fields({"p42", "cback\\x5cup ^Atool"});
  output += fields({"f7", "aw", "tREG", "D0x1000007", "i103", "n/Backups/other-link.db"});
  output += fields({"f8", "ar", "tDIR", "D0x1000007", "i101", "n/Items/App.app/Contents"});
  output += fields({"fmem", "a ", "tREG", "D0x27", "i257", "n/Items/App.app/Contents/subvolume.lib (path dev=0,41)"});
  output += fields({"fcwd", "a ", "tDIR", "D0x1000007", "i100", "n/Items/App.app"});
  output += fields({"fNOFD", "a ", "tunknown", "n/proc/42/fd (opendir: Permission denied)"});

  const auto references = MigrationOpenFiles::references(output, source, sampleIndex());
  ASSERT_EQ(references.size(), 9u);
  EXPECT_EQ(references[0].descriptor, "cwd");
  EXPECT_EQ(references[0].reason, Reason::working_directory);
  EXPECT_EQ(references[0].itemPath, "");
  EXPECT_EQ(references[1].reason, Reason::runtime);
  EXPECT_EQ(references[2].itemPath, "Contents/data.db");  // the path the process used, not the first alias
  EXPECT_FALSE(references[2].throughOtherHardLink);
  EXPECT_EQ(references[2].reason, Reason::writable);
  EXPECT_EQ(references[3].name, "/Items/App.app/Contents/odd name\n.txt");
  EXPECT_EQ(references[3].itemPath, "Contents/odd name\n.txt");
  EXPECT_EQ(references[3].reason, Reason::read_only);
  EXPECT_EQ(references[4].reason, Reason::endpoint);
  EXPECT_EQ(references[5].pid, 42);
  EXPECT_EQ(references[5].command, "back\\up \x01tool");
  EXPECT_TRUE(references[5].throughOtherHardLink);
  EXPECT_EQ(references[5].reason, Reason::writable);
  EXPECT_EQ(references[6].reason, Reason::directory);
  EXPECT_EQ(references[7].itemPath, "Contents/subvolume.lib");
  EXPECT_EQ(references[7].reason, Reason::runtime);
  EXPECT_EQ(references[8].descriptor, "cwd");  // not a repeat: another process
  EXPECT_EQ(references[8].pid, 42);
}

TEST(MigrationOpenFilesTest, ReasonsOfUnusualRecords) {
  EXPECT_EQ(MigrationOpenFiles::reasonFor("rtd", " ", "DIR"), Reason::working_directory);
  EXPECT_EQ(MigrationOpenFiles::reasonFor("DEL", " ", "REG"), Reason::runtime);
  EXPECT_EQ(MigrationOpenFiles::reasonFor("12", "r", "FIFO"), Reason::endpoint);
  EXPECT_EQ(MigrationOpenFiles::reasonFor("12", "u", "DIR"), Reason::directory);
  EXPECT_EQ(MigrationOpenFiles::reasonFor("12", "r", "CHR"), Reason::unknown);
  EXPECT_EQ(MigrationOpenFiles::reasonFor("12", " ", "REG"), Reason::unknown);
  EXPECT_EQ(MigrationOpenFiles::reasonFor("NOFD", "u", "REG"), Reason::unknown);
  EXPECT_EQ(MigrationOpenFiles::reasonFor("1a", "w", "REG"), Reason::unknown);
}

TEST(MigrationOpenFilesTest, ListerTextEscapingRoundTripsEveryByte) {
  // Every byte but the caret: lsof prints a control character as ^X and a real "^X" the same
  // way, so that one pair cannot come back (names are only shown, never used to find files).
  std::string all;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '^') all += static_cast<char>(byte);
  }
  const std::string escaped = platform::escapeListerText(all);
  EXPECT_EQ(escaped.find('\n'), std::string::npos);
  EXPECT_EQ(escaped.find('\0'), std::string::npos);
  EXPECT_EQ(platform::unescapeListerText(escaped), all);
  EXPECT_EQ(platform::escapeListerText("a\\b\x7f\xc3\xbc\x1b"), "a\\\\b\\x7f\\xc3\\xbc^[");
  EXPECT_EQ(platform::unescapeListerText("^A^^x"), "\x01\x1e" "x");
  // Text lsof never writes stays as printed.
  EXPECT_EQ(platform::unescapeListerText("\\q \\x4"), "\\q \\x4");
}

MigrationOpenFiles::Inspect answering(int status, std::string output, std::string error = "") {
  return [=](const MigrationOpenFiles::FileIndex&) { return MigrationOpenFiles::Result{status, output, error}; };
}

void expectUnknown(const MigrationOpenFiles::Inspect& inspect, const std::string& why) {
  try {
    MigrationOpenFiles::occupyingReferences("/Items/App.app", sampleIndex(), inspect);
    ADD_FAILURE() << why << ": the state must count as unknown";
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.key(), "migration.preflight.occupancy_unknown") << why;
    EXPECT_EQ(issue.detail(), "/Items/App.app") << why;
  }
}

TEST(MigrationOpenFilesTest, EveryDoubtAboutTheListerMakesTheStateUnknown) {
  const std::string someone = fields({"p1", "claunchd"}) + fields({"fcwd", "a ", "tDIR", "D0x1000002", "i2", "n/"});
  EXPECT_TRUE(MigrationOpenFiles::occupyingReferences("/Items/App.app", sampleIndex(), answering(1, "")).empty())
      << "status 1 without output: nothing is open at all";
  EXPECT_TRUE(MigrationOpenFiles::occupyingReferences("/Items/App.app", sampleIndex(), answering(0, someone)).empty());
  expectUnknown(answering(0, ""), "status 0 without output");
  expectUnknown(answering(0, someone, "lsof: WARNING: can't stat() nfs file system /net\n"), "standard error");
  expectUnknown(answering(1, someone), "status 1 with output");
  expectUnknown(answering(2, someone), "status 2");
  expectUnknown(answering(137, someone), "killed");
  expectUnknown(answering(0, std::string("p1\0cla", 6)), "output cut inside a field");
  expectUnknown(answering(0, fields({"f3", "ar", "tREG", "D0x1", "i5", "nx"})), "file before any process");
  expectUnknown(answering(0, fields({"p1", "cx"}) + fields({"f3", "D0xzz", "i5"})), "unreadable device");
  expectUnknown([](const MigrationOpenFiles::FileIndex&) -> MigrationOpenFiles::Result {
                  throw platform::PosixError(ENOENT, "/usr/sbin/lsof");
                },
                "lister missing");
}

TEST(MigrationOpenFilesTest, GroupsNameProcessesAndGatherFamilies) {
  using Reference = MigrationOpenFiles::Reference;
  auto reference = [](pid_t pid, std::string command, std::string path, Reason reason) {
    Reference result;
    result.pid = pid;
    result.command = std::move(command);
    result.itemPath = std::move(path);
    result.reason = reason;
    return result;
  };
  std::map<pid_t, platform::ProcessDetails> processes = {
      {10, {"/Applications/Editor.app/Contents/MacOS/Editor", {"Editor"}}},
      {11, {"/Applications/Editor.app/Contents/Frameworks/Editor Helper.app/Contents/MacOS/Editor Helper", {"helper"}}},
      {20, {"/opt/pg/bin/postgres", {"postgres", "-D", "data"}}},
      {21, {"/opt/pg/bin/postgres", {"postgres: checkpointer"}}},
      {30, {"/usr/bin/git", {"git", "fsmonitor--daemon", "run", "--detach"}}},
      {31, {"/usr/bin/git", {"git", "status"}}},
      {40, {"/System/Library/Frameworks/AppKit.framework/Versions/C/XPCServices/"
            "com.apple.appkit.xpc.openAndSavePanelService.xpc/Contents/MacOS/com.apple.appkit.xpc.openAndSavePanelService",
            {}}},
  };
  auto identify = [&](pid_t pid) -> std::optional<platform::ProcessDetails> {
    auto found = processes.find(pid);
    if (found == processes.end()) return std::nullopt;
    return found->second;
  };
  const std::vector<Reference> references = {
      reference(10, "Editor", "a.txt", Reason::read_only),
      reference(11, "Editor Helper", "b.txt", Reason::writable),
      reference(20, "postgres", "data/base", Reason::directory),
      reference(21, "postgres", "data/pg_wal", Reason::writable),
      reference(30, "git", ".git", Reason::working_directory),
      reference(31, "git", ".git/index", Reason::read_only),
      reference(40, "com.apple.appkit.xpc.openAndSavePanelService", "", Reason::directory),
      reference(50, "", "c.txt", Reason::unknown),
      reference(10, "Editor", "a.txt", Reason::runtime),
  };
  const auto groups = MigrationOpenFiles::grouped(references, identify);
  ASSERT_EQ(groups.size(), 6u);
  EXPECT_EQ(groups[0].kind, GroupKind::bundleOrigin);
  EXPECT_EQ(groups[0].name, "Editor");
  EXPECT_EQ(groups[0].pids, (std::vector<pid_t>{10, 11}));
  EXPECT_EQ(groups[0].reasons, (std::vector<Reason>{Reason::read_only, Reason::writable, Reason::runtime}));
  EXPECT_EQ(groups[0].paths.size(), 2u);
  EXPECT_EQ(groups[1].kind, GroupKind::postgres);
  EXPECT_EQ(groups[1].name, "PostgreSQL");
  EXPECT_EQ(groups[1].pids, (std::vector<pid_t>{20, 21}));
  EXPECT_EQ(groups[2].kind, GroupKind::gitMonitor);
  EXPECT_EQ(groups[2].pids, std::vector<pid_t>{30});
  EXPECT_EQ(groups[3].kind, GroupKind::process) << "a git that is not the monitor is just git";
  EXPECT_EQ(groups[3].name, "git");
  EXPECT_EQ(groups[4].kind, GroupKind::filePicker);
  EXPECT_EQ(groups[5].kind, GroupKind::unnamed);
}

// A stand-in lsof: a shell script with the given body, made executable.
std::string fakeLister(const TemporaryDirectory& directory, const std::string& body) {
  const std::string path = directory.child("lsof");
  writeFile(path, "#!/bin/sh\n" + body, 0755);
  return path;
}

TEST(MigrationOpenFilesTest, LsofRunsWithItsArgumentsInTheCLocaleOutsideAnyItem) {
  TemporaryDirectory directory;
  const std::string record = directory.child("record");
  const std::string lister = fakeLister(directory, "printf '%s\\n' \"$@\" \"LC_ALL=$LC_ALL\" \"PWD=$(pwd)\" > '" + record +
                                                       "'\nprintf 'p1\\0claunchd\\0\\n'\n");
  const auto result = MigrationOpenFiles::inspectWithLsof(lister);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.standardOutput, std::string("p1\0claunchd\0\n", 13));
  EXPECT_EQ(readFile(record), "-nP\n+c\n0\n-F0pcfatDin\nLC_ALL=C\nPWD=/\n");
}

TEST(MigrationOpenFilesTest, LsofThatHangsAndIgnoresTerminateIsKilledAndTheStateUnknown) {
  TemporaryDirectory directory;
  const std::string pidFile = directory.child("pid");
  const std::string lister = fakeLister(directory, "trap '' TERM\necho $$ > '" + pidFile + "'\nwhile :; do sleep 1; done\n");
  try {
    MigrationOpenFiles::inspectWithLsof(lister);
    FAIL() << "a lister that never ends cannot answer";
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.key(), "migration.preflight.occupancy_unknown");
  }
  const pid_t pid = std::stoi(readFile(pidFile));
  EXPECT_EQ(kill(pid, 0), -1) << "the lister was killed and reaped";
  EXPECT_EQ(errno, ESRCH);
}

TEST(MigrationOpenFilesTest, LsofThatCannotStartPassesItsErrorThrough) {
  EXPECT_THROW(MigrationOpenFiles::inspectWithLsof("/nonexistent/lsof"), platform::PosixError);
}

}  // namespace
}  // namespace corvane
