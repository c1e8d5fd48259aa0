// Reading the lister's field output, the fail-safe rules of one check, grouping, and the lsof
// lister's own run (arguments, environment, bounds) through stand-in executables.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "engine/migration_open_files.h"
#include "engine/migration_test_support.h"
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
  for (auto value : values) (text += value) += '\0';
  return text + '\n';
}

// An item at /Items/App.app with a few files, as a manifest on device 0x1000007.
MigrationOpenFiles::FileIndex sampleIndex() {
  MigrationManifest manifest;
  auto add = [&](const std::string& path, MigrationEntry::Kind kind, std::uint64_t inode, std::int32_t device = 0x1000007) {
    manifest[path].kind = kind;
    manifest[path].device = device;
    manifest[path].inode = inode;
  };
  add("", MigrationEntry::Kind::directory, 100);
  add("Contents", MigrationEntry::Kind::directory, 101);
  add("Contents/MacOS/App", MigrationEntry::Kind::regular, 102);
  add("Contents/data.db", MigrationEntry::Kind::regular, 103);
  add("Contents/alias.db", MigrationEntry::Kind::regular, 103);
  add("Contents/odd name\n.txt", MigrationEntry::Kind::regular, 104);
  add("Contents/run.sock", MigrationEntry::Kind::socket, 105);
  add("Contents/subvolume.lib", MigrationEntry::Kind::regular, 257, static_cast<std::int32_t>(platform::deviceNumber(0, 41)));
  return MigrationOpenFiles::fileIndex(manifest);
}

TEST(MigrationOpenFilesTest, ParsesFieldOutputAndKeepsOnlyTheItemsFiles) {
  const auto index = sampleIndex();
  EXPECT_EQ(index.at({0x1000007, 103}).relativePath, "Contents/alias.db") << "the first path in manifest order";
  EXPECT_EQ(index.at({0x1000007, 103}).otherPaths, std::vector<std::string>{"Contents/data.db"});

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

  std::vector<std::string> found;
  const auto references = MigrationOpenFiles::references(output, "/Items/App.app", index);
  for (const auto& r : references) {
    found.push_back(std::to_string(r.pid) + " " + r.descriptor + " [" + r.itemPath + "] " +
                    std::string(MigrationOpenFiles::reasonName(r.reason)) + (r.throughOtherHardLink ? " alias" : ""));
  }
  // data.db names the path the process used, not the first alias; the last cwd is another process's.
  EXPECT_EQ(found, (std::vector<std::string>{
                       "311 cwd [] working_directory", "311 txt [Contents/MacOS/App] runtime",
                       "311 3 [Contents/data.db] writable", "311 4 [Contents/odd name\n.txt] read_only",
                       "311 5 [Contents/run.sock] endpoint", "42 7 [Contents/alias.db] writable alias",
                       "42 8 [Contents] directory", "42 mem [Contents/subvolume.lib] runtime", "42 cwd [] working_directory"}));
  ASSERT_EQ(references.size(), 9u);
  EXPECT_EQ(references[3].name, "/Items/App.app/Contents/odd name\n.txt");
  EXPECT_EQ(references[5].command, "back\\up \x01tool");

  // Records the live listers never produce above.
  const std::vector<std::tuple<const char*, const char*, const char*, Reason>> unusual = {
      {"rtd", " ", "DIR", Reason::working_directory}, {"DEL", " ", "REG", Reason::runtime},
      {"12", "r", "FIFO", Reason::endpoint},          {"12", "u", "DIR", Reason::directory},
      {"12", "r", "CHR", Reason::unknown},            {"12", " ", "REG", Reason::unknown},
      {"NOFD", "u", "REG", Reason::unknown},          {"1a", "w", "REG", Reason::unknown}};
  for (const auto& [descriptor, access, type, reason] : unusual) {
    EXPECT_EQ(MigrationOpenFiles::reasonFor(descriptor, access, type), reason) << descriptor << " " << type;
  }
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
  EXPECT_EQ(platform::unescapeListerText("\\q \\x4"), "\\q \\x4") << "text lsof never writes stays as printed";
}

MigrationOpenFiles::Inspect answering(int status, std::string output, std::string error = "") {
  return [=](const MigrationOpenFiles::FileIndex&) { return MigrationOpenFiles::Result{status, output, error}; };
}

TEST(MigrationOpenFilesTest, EveryDoubtAboutTheListerMakesTheStateUnknown) {
  const auto check = [](const MigrationOpenFiles::Inspect& inspect) {
    return MigrationOpenFiles::occupyingReferences("/Items/App.app", sampleIndex(), inspect);
  };
  const std::string someone = fields({"p1", "claunchd"}) + fields({"fcwd", "a ", "tDIR", "D0x1000002", "i2", "n/"});
  EXPECT_TRUE(check(answering(1, "")).empty()) << "status 1 without output: nothing is open at all";
  EXPECT_TRUE(check(answering(0, someone)).empty());
  const std::vector<std::pair<std::string, MigrationOpenFiles::Inspect>> doubts = {
      {"status 0 without output", answering(0, "")},
      {"standard error", answering(0, someone, "lsof: WARNING: can't stat() nfs file system /net\n")},
      {"status 1 with output", answering(1, someone)},
      {"status 2", answering(2, someone)},
      {"killed", answering(137, someone)},
      {"output cut inside a field", answering(0, std::string("p1\0cla", 6))},
      {"file before any process", answering(0, fields({"f3", "ar", "tREG", "D0x1", "i5", "nx"}))},
      {"unreadable device", answering(0, fields({"p1", "cx"}) + fields({"f3", "D0xzz", "i5"}))},
      {"lister missing", [](const MigrationOpenFiles::FileIndex&) -> MigrationOpenFiles::Result {
         throw platform::PosixError(ENOENT, "/usr/sbin/lsof");
       }}};
  for (const auto& [why, inspect] : doubts) {
    const auto issue = issueOf([&] { check(inspect); });
    EXPECT_EQ(issue.key(), "migration.preflight.occupancy_unknown") << why << ": the state must count as unknown";
    EXPECT_EQ(issue.detail(), "/Items/App.app") << why;
  }
}

TEST(MigrationOpenFilesTest, GroupsNameProcessesAndGatherFamilies) {
  auto reference = [](pid_t pid, std::string command, std::string path, Reason reason) {
    MigrationOpenFiles::Reference result;
    result.pid = pid;
    result.command = std::move(command);
    result.itemPath = std::move(path);
    result.reason = reason;
    return result;
  };
  const std::map<pid_t, platform::ProcessDetails> processes = {
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
    return found == processes.end() ? std::nullopt : std::optional(found->second);
  };
  const auto groups = MigrationOpenFiles::grouped(
      {reference(10, "Editor", "a.txt", Reason::read_only), reference(11, "Editor Helper", "b.txt", Reason::writable),
       reference(20, "postgres", "data/base", Reason::directory), reference(21, "postgres", "data/pg_wal", Reason::writable),
       reference(30, "git", ".git", Reason::working_directory), reference(31, "git", ".git/index", Reason::read_only),
       reference(40, "com.apple.appkit.xpc.openAndSavePanelService", "", Reason::directory),
       reference(50, "", "c.txt", Reason::unknown), reference(10, "Editor", "a.txt", Reason::runtime)},
      identify);
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

TEST(MigrationOpenFilesTest, LsofRunsInTheCLocaleOutsideAnyItemAndWithinBounds) {
  TemporaryDirectory directory;
  const std::string record = directory.child("record");
  const auto lister = writeScript(directory.path(), "lsof", "printf '%s\\n' \"$@\" \"LC_ALL=$LC_ALL\" \"PWD=$(pwd)\" > '" +
                                                               record + "'\nprintf 'p1\\0claunchd\\0\\n'\n");
  const auto result = MigrationOpenFiles::inspectWithLsof(lister);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.standardOutput, std::string("p1\0claunchd\0\n", 13));
  EXPECT_EQ(readFile(record), "-nP\n+c\n0\n-F0pcfatDin\nLC_ALL=C\nPWD=/\n");

  EXPECT_THROW(MigrationOpenFiles::inspectWithLsof("/nonexistent/lsof"), platform::PosixError);

  // A lister that hangs and ignores the terminate request is killed, and the state is unknown.
  const std::string pidFile = directory.child("pid");
  const auto hanging = writeScript(directory.path(), "hanging", "trap '' TERM\necho $$ > '" + pidFile + "'\nwhile :; do sleep 1; done\n");
  EXPECT_EQ(issueOf([&] { MigrationOpenFiles::inspectWithLsof(hanging); }).key(), "migration.preflight.occupancy_unknown");
  EXPECT_TRUE(processIsReaped(std::stoi(readFile(pidFile)))) << "the lister was killed and reaped";
}

}  // namespace
}  // namespace corvane
