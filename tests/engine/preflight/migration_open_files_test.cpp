// The open-file check: parsing, fail-safe rules, grouping and its message, lsof through stand-ins,
// and both real listers over the same live processes.
#include "engine/preflight/migration_open_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <map>
#include <string>

#include "engine/migration_test_support.h"
#include "engine/preflight/migration_occupancy_description.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/stalling_fuse_mount.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/open_file_fields.h"
#include "platform/open_file_lister.h"
#include "platform/posix_error.h"
#include "platform/process.h"
#include "settings/localization.h"

namespace corvane {
namespace {

using Reason = MigrationOpenFiles::Reason;
using GroupKind = MigrationOpenFiles::GroupKind;

// lsof's field output from records written one per line, with '|' ending each field.
std::string fields(std::string_view records) {
  std::string text;
  for (char c : records)
    text += c == '|' ? std::string(1, '\0') : c == '\n' ? std::string("\0\n", 2) : std::string(1, c);
  return text;
}

// An item at /Items/App.app with a few files, as a manifest on device 0x1000007. The index
// refers to the manifest's paths, so the manifest stays for the whole run.
const MigrationManifest& sampleManifest() {
  static const MigrationManifest manifest = [] {
    MigrationManifest manifest;
    auto add = [&](const std::string& path, MigrationEntry::Kind kind, std::uint64_t inode,
                   std::int32_t device = 0x1000007) {
      std::tie(manifest[path].kind, manifest[path].device, manifest[path].inode) = std::tie(kind, device, inode);
    };
    using Kind = MigrationEntry::Kind;
    add("", Kind::directory, 100);
    add("Contents", Kind::directory, 101);
    add("Contents/MacOS/App", Kind::regular, 102);
    add("Contents/data.db", Kind::regular, 103);
    add("Contents/alias.db", Kind::regular, 103);  // hard links
    add("Contents/odd name\n.txt", Kind::regular, 104);
    add("Contents/run.sock", Kind::socket, 105);
    add("Contents/subvolume.lib", Kind::regular, 257, static_cast<std::int32_t>(platform::deviceNumber(0, 41)));
    return manifest;
  }();
  return manifest;
}

MigrationOpenFiles::FileIndex sampleIndex() { return MigrationOpenFiles::fileIndex(sampleManifest()); }

TEST(MigrationOpenFilesTest, ParsesFieldOutputAndKeepsOnlyTheItemsFiles) {
  const auto index = sampleIndex();
  EXPECT_EQ(index.find({0x1000007, 103})->otherPaths, std::vector<std::string_view>{"Contents/data.db"})
      << "alias.db comes first";
  // lsof lists a process once more for each thread; those repeats are the same references.
  const std::string output = fields(
      "p311|cApp\nfcwd|a |tDIR|D0x1000007|i100|n/Items/App.app\n"
      "ftxt|a |tREG|D0x1000007|i102|n/Items/App.app/Contents/MacOS/App\nfmem|a |tREG|D0x1000004|i9|n/usr/lib/dyld\n"
      "f3|au|tREG|D0x1000007|i103|n/Items/App.app/Contents/data.db\n"
      "f4|ar|tREG|D0x1000007|i104|n/Items/App.app/Contents/odd name\\n.txt\n"
      "f5|au|tunix|D0x1000007|i105|n/Items/App.app/Contents/run.sock\nf6|ar|tCHR|D0x3000000|i3|n/dev/null\n"
      "p311|cApp\nfcwd|a |tDIR|D0x1000007|i100|n/Items/App.app\n"
      "p42|cback\\x5cup ^Atool\nf7|aw|tREG|D0x1000007|i103|n/Backups/other-link.db\n"
      "f8|ar|tDIR|D0x1000007|i101|n/Items/App.app/Contents\n"
      "fmem|a |tREG|D0x27|i257|n/Items/App.app/Contents/subvolume.lib (path dev=0,41)\n"
      "fcwd|a |tDIR|D0x1000007|i100|n/Items/App.app\nfNOFD|a |tunknown|n/proc/42/fd (opendir: Permission denied)\n");
  std::vector<std::string> found;
  const auto references = MigrationOpenFiles::references(output, "/Items/App.app", index);
  for (const auto& r : references) {
    found.push_back(std::to_string(r.pid) + " " + r.descriptor + " [" + r.itemPath + "] " +
                    std::string(MigrationOpenFiles::reasonName(r.reason)) + (r.throughOtherHardLink ? " alias" : ""));
  }
  // data.db names the path the process used, not the first alias; the last cwd is another process's.
  EXPECT_EQ(found,
            (std::vector<std::string>{"311 cwd [] working_directory", "311 txt [Contents/MacOS/App] runtime",
                                      "311 3 [Contents/data.db] writable", "311 4 [Contents/odd name\n.txt] read_only",
                                      "311 5 [Contents/run.sock] endpoint", "42 7 [Contents/alias.db] writable alias",
                                      "42 8 [Contents] directory", "42 mem [Contents/subvolume.lib] runtime",
                                      "42 cwd [] working_directory"}));
  ASSERT_EQ(references.size(), 9u);
  EXPECT_EQ(references[3].name, "/Items/App.app/Contents/odd name\n.txt");
  EXPECT_EQ(references[5].command, "back\\up \x01tool");
  // Records the live listers never produce above.
  const std::vector<std::tuple<const char*, const char*, const char*, Reason>> unusual = {
      {"rtd", " ", "DIR", Reason::working_directory},
      {"DEL", " ", "REG", Reason::runtime},
      {"12", "r", "FIFO", Reason::endpoint},
      {"12", "u", "DIR", Reason::directory},
      {"12", "r", "CHR", Reason::unknown},
      {"12", " ", "REG", Reason::unknown},
      {"NOFD", "u", "REG", Reason::unknown},
      {"1a", "w", "REG", Reason::unknown}};
  for (const auto& [descriptor, access, type, reason] : unusual) {
    EXPECT_EQ(MigrationOpenFiles::reasonFor(descriptor, access, type), reason) << descriptor << " " << type;
  }
}

TEST(MigrationOpenFilesTest, ListerTextEscapingRoundTripsEveryByteButTheCaret) {
  // A control character and a real "^X" print alike, so that pair alone cannot come back (names are only shown).
  std::string all;
  for (int byte = 1; byte < 256; ++byte) all += byte == '^' ? std::string() : std::string(1, static_cast<char>(byte));
  EXPECT_EQ(platform::escapeListerText(all).find_first_of(std::string("\n\0", 2)), std::string::npos);
  EXPECT_EQ(platform::unescapeListerText(platform::escapeListerText(all)), all);
  EXPECT_EQ(platform::escapeListerText("a\\b\x7f\xc3\xbc\x1b"), "a\\\\b\\x7f\\xc3\\xbc^[");
  EXPECT_EQ(platform::unescapeListerText("^A^^x \\q \\x4"),
            "\x01\x1e"
            "x \\q \\x4")
      << "unknown escapes stay";
}

MigrationOpenFiles::Inspect answering(int status, std::string output, std::string error = "") {
  return [=](const std::string&, const MigrationOpenFiles::FileIndex&) {
    return MigrationOpenFiles::Result{status, output, error};
  };
}

TEST(MigrationOpenFilesTest, EveryDoubtAboutTheListerMakesTheStateUnknown) {
  const auto check = [](const MigrationOpenFiles::Inspect& inspect) {
    return MigrationOpenFiles::occupyingReferences("/Items/App.app", sampleIndex(), inspect);
  };
  const std::string someone = fields("p1|claunchd\nfcwd|a |tDIR|D0x1000002|i2|n/\n");
  EXPECT_TRUE(check(answering(1, "")).empty()) << "status 1 without output: nothing is open at all";
  EXPECT_TRUE(check(answering(0, someone)).empty());
  const std::vector<std::pair<std::string, MigrationOpenFiles::Inspect>> doubts = {
      {"status 0 without output", answering(0, "")},
      {"standard error", answering(0, someone, "lsof: WARNING: can't stat() nfs file system /net\n")},
      {"status 1 with output", answering(1, someone)},
      {"status 2", answering(2, someone)},
      {"killed", answering(137, someone)},
      {"output cut inside a field", answering(0, std::string("p1\0cla", 6))},
      {"file before any process", answering(0, fields("f3|ar|tREG|D0x1|i5|nx\n"))},
      {"unreadable device", answering(0, fields("p1|cx\nf3|D0xzz|i5\n"))},
      {"lister missing", [](const std::string&, const MigrationOpenFiles::FileIndex&) -> MigrationOpenFiles::Result {
         throw platform::PosixError(ENOENT, "/usr/sbin/lsof");
       }}};
  for (const auto& [why, inspect] : doubts) {
    const auto issue = issueOf([&] { check(inspect); });
    EXPECT_EQ(issue.key(), "migration.preflight.occupancy_unknown") << why << ": the state must count as unknown";
    EXPECT_EQ(issue.detail(), "/Items/App.app") << why;
  }
}

TEST(MigrationOpenFilesTest, GroupsGatherFamiliesAndTheMessageNamesThemUpToTheLimit) {
  auto reference = [](pid_t pid, std::string command, std::string path, Reason reason) {
    MigrationOpenFiles::Reference result;
    std::tie(result.pid, result.command, result.itemPath, result.reason) = std::tie(pid, command, path, reason);
    return result;
  };
  const std::map<pid_t, platform::ProcessDetails> processes = {
      {10, {"/Applications/Editor.app/Contents/MacOS/Editor", {"Editor"}}},
      {11, {"/Applications/Editor.app/Contents/Frameworks/Editor Helper.app/Contents/MacOS/Editor Helper", {"helper"}}},
      {20, {"/opt/pg/bin/postgres", {"postgres", "-D", "data"}}},
      {21, {"/opt/pg/bin/postgres", {"postgres: checkpointer"}}},
      {30, {"/usr/bin/git", {"git", "fsmonitor--daemon", "run", "--detach"}}},
      {31, {"/usr/bin/git", {"git", "status"}}},
      {40,
       {"/System/Library/Frameworks/AppKit.framework/Versions/C/XPCServices/"
        "com.apple.appkit.xpc.openAndSavePanelService.xpc/Contents/MacOS/com.apple.appkit.xpc.openAndSavePanelService",
        {}}},
  };
  auto identify = [&](pid_t pid) -> std::optional<platform::ProcessDetails> {
    auto found = processes.find(pid);
    return found == processes.end() ? std::nullopt : std::optional(found->second);
  };
  std::vector<MigrationOpenFiles::Reference> references = {
      reference(10, "Editor", "a.txt", Reason::read_only),
      reference(11, "Editor Helper", "b.txt", Reason::writable),
      reference(20, "postgres", "data/base", Reason::directory),
      reference(21, "postgres", "data/pg_wal", Reason::writable),
      reference(30, "git", ".git", Reason::working_directory),
      reference(31, "git", ".git/index", Reason::read_only),
      reference(40, "com.apple.appkit.xpc.openAndSavePanelService", "", Reason::directory),
      reference(50, "", "c.txt", Reason::unknown),
      reference(10, "Editor", "a.txt", Reason::runtime)};
  for (pid_t pid = 60; pid < 66; ++pid)
    references.push_back(reference(pid, "w" + std::to_string(pid), "w", Reason::read_only));
  const auto groups = MigrationOpenFiles::grouped(references, identify);
  ASSERT_EQ(groups.size(), 12u);
  std::vector<GroupKind> kinds;
  for (const auto& group : groups) kinds.push_back(group.kind);
  EXPECT_EQ(std::vector<GroupKind>(kinds.begin(), kinds.begin() + 7),
            (std::vector<GroupKind>{GroupKind::bundleOrigin, GroupKind::postgres, GroupKind::gitMonitor,
                                    GroupKind::process, GroupKind::filePicker, GroupKind::unnamed, GroupKind::process}))
      << "a git that is not the monitor is just git";
  EXPECT_EQ(groups[0].name, "Editor");
  EXPECT_EQ(groups[0].pids, (std::vector<pid_t>{10, 11}));
  EXPECT_EQ(groups[0].reasons, (std::vector<Reason>{Reason::read_only, Reason::writable, Reason::runtime}));
  EXPECT_EQ(groups[0].paths.size(), 2u);
  EXPECT_EQ(groups[1].name, "PostgreSQL");
  EXPECT_EQ(groups[1].pids, (std::vector<pid_t>{20, 21}));
  EXPECT_EQ(groups[3].name, "git");
  const std::string text = MigrationOccupancyDescription::message(MigrationOpenFiles::Blocked("/srv/Item", groups));
  const auto pids = [](const char* list) { return localizedFormat("migration.occupancy.pids", list); };
  const auto editor = localizedFormat("migration.occupancy.bundle_origin", "Editor");
  for (const auto& line :
       {localizedFormat("migration.occupancy.group", editor, pids("10, 11")),
        localizedFormat("migration.occupancy.group", "PostgreSQL", pids("20, 21")),
        localizedFormat("migration.occupancy.group", localized("migration.occupancy.git_monitor"), pids("30")),
        localizedFormat("migration.occupancy.group", localized("migration.occupancy.file_picker"), pids("40")),
        localizedFormat("migration.occupancy.group", localized("migration.occupancy.unnamed"), pids("50")),
        localizedFormat("migration.occupancy.reference", "Item"),
        localizedFormat("occupancy.message.more_groups", groups.size() - MigrationOccupancyDescription::kGroupLimit)}) {
    EXPECT_NE(text.find(line), std::string::npos) << "missing line: " << line << "\nin:\n" << text;
  }
  EXPECT_EQ(text.find(pids("65")), std::string::npos) << "groups past the limit are only counted";
  EXPECT_EQ(MigrationOccupancyDescription::logLine("/srv/Item", "occupancy.message.reason", {"why"}),
            localizedFormat("occupancy.message.reason", "Item", "why"))
      << "log lines put the item name first";
}

TEST(MigrationOpenFilesTest, LsofRunsInTheCLocaleOutsideAnyItemAndWithinBounds) {
  TemporaryDirectory directory;
  const std::string record = directory.child("record");
  const auto lister = writeScript(
      directory.path(), "lsof",
      "printf '%s\\n' \"$@\" \"LC_ALL=$LC_ALL\" \"PWD=$(pwd)\" > '" + record + "'\nprintf 'p1\\0claunchd\\0\\n'\n");
  const auto result = MigrationOpenFiles::inspectWithLsof(lister);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.standardOutput, std::string("p1\0claunchd\0\n", 13));
  EXPECT_EQ(readFile(record), "-nP\n+c\n0\n-F0pcfatDin\nLC_ALL=C\nPWD=/\n");
  EXPECT_THROW(MigrationOpenFiles::inspectWithLsof("/nonexistent/lsof"), platform::PosixError);
  // A lister that hangs and ignores the terminate request is killed, and the state is unknown.
  const std::string pidFile = directory.child("pid");
  const auto hanging = writeScript(directory.path(), "hanging",
                                   "trap '' TERM\necho $$ > '" + pidFile + "'\nwhile :; do sleep 1; done\n");
  const ShortToolDeadlines brief;
  EXPECT_EQ(issueOf([&] { MigrationOpenFiles::inspectWithLsof(hanging); }).key(),
            "migration.preflight.occupancy_unknown");
  EXPECT_TRUE(processIsReaped(std::stoi(readFile(pidFile)))) << "the lister was killed and reaped";
}

using Reference = MigrationOpenFiles::Reference;
using Paths = std::multimap<std::string, Reason>;

// lsof warns about any mount on the machine it cannot stat (a dead FUSE driver, say): only those lines are set aside.
std::string errorsAboutTheItem(const std::string& standardError, const std::string& item) {
  std::string kept;
  bool continuing = false;
  for (std::size_t start = 0, end; start < standardError.size(); start = end + 1) {
    end = std::min(standardError.find('\n', start), standardError.size());
    const std::string line = standardError.substr(start, end - start);
    const bool foreignMount =
        line.rfind("lsof: WARNING: can't stat() ", 0) == 0 && line.find(item) == std::string::npos;
    const bool skip =
        foreignMount || (continuing && line.find("Output information may be incomplete") != std::string::npos);
    continuing = skip && foreignMount;
    if (!skip) kept += line + "\n";
  }
  return kept;
}

// One line per reference, sorted, so that listers can be compared and their differences read.
std::vector<std::string> asText(const std::vector<Reference>& references) {
  std::vector<std::string> lines;
  for (const auto& r : references) {
    lines.push_back(std::to_string(r.pid) + " " + r.command + " f=" + r.descriptor + " a=" + r.access + " t=" + r.type +
                    " d=" + std::to_string(r.device) + " i=" + std::to_string(r.inode) + " n=" + r.name + " -> " +
                    r.itemPath + " (" + std::string(MigrationOpenFiles::reasonName(r.reason)) +
                    (r.throughOtherHardLink ? ", alias)" : ")"));
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

// Runs the native scan (whole and filtered) and lsof over `item`, expects all three to agree, returns the native one.
std::vector<Reference> listersAgreeOn(const std::string& item) {
  const auto manifest = scanned(item);
  const auto index = MigrationOpenFiles::fileIndex(manifest);
  auto referencesOf = [&](const MigrationOpenFiles::Result& run) {
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(errorsAboutTheItem(run.standardError, item), "");
    return MigrationOpenFiles::references(run.standardOutput, item, index);
  };
  const auto native = referencesOf(MigrationOpenFiles::inspectNatively());
  const auto lsof = asText(referencesOf(MigrationOpenFiles::inspectWithLsof(platform::lsofExecutablePath())));
  EXPECT_EQ(asText(native), lsof) << "native scan";
  EXPECT_EQ(asText(referencesOf(MigrationOpenFiles::inspectNatively(item, index))), lsof) << "filtered native scan";
  return native;
}

Paths byPath(const std::vector<Reference>& references, pid_t pid) {
  Paths result;
  for (const auto& reference : references) {
    if (reference.pid == pid) result.emplace(reference.itemPath, reference.reason);
  }
  return result;
}

#define CORVANE_NEEDS_LSOF()                             \
  if (access(platform::lsofExecutablePath(), X_OK) != 0) \
  GTEST_SKIP() << "needs lsof at " << platform::lsofExecutablePath()

TEST(MigrationOpenFilesListersTest, NativeScanAndLsofFindTheSameOccupantsForTheSameReasons) {
  CORVANE_NEEDS_LSOF();
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  makeDirectories(item + "/work/deeper");
  writeFile(item + "/read.txt", "read me\n");
  writeFile(item + "/log.txt", "");
  writeFile(item + "/library.bin", std::string(8192, 'L'));
  writeFile(item + "/mine.txt", "mine\n");
  // lsof escapes every odd byte of this name, and the name must come back as the real path.
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
  // Children of one parent inherit its open files: the same open file of the item in every one of
  // them, and at the next number a file opened for each alone, in the item for one child only.
  writeFile(item + "/inherited.txt", "inherited\n");
  writeFile(scratch.child("own.txt"), "own\n");
  const int inherited = open((item + "/inherited.txt").c_str(), O_RDONLY);
  ASSERT_GE(inherited, 0);
  std::vector<pid_t> siblings;
  struct Reaper {
    std::vector<pid_t>& children;
    ~Reaper() {
      for (pid_t child : children) kill(child, SIGKILL);
      for (pid_t child : children) waitpid(child, nullptr, 0);
    }
  } reaper{siblings};
  for (int i = 0; i < 4; ++i) {
    const int own = open((i == 2 ? item + "/read.txt" : scratch.child("own.txt")).c_str(), O_RDONLY);
    ASSERT_GE(own, 0);
    const pid_t child = fork();
    if (child == 0) {
      for (;;) pause();
    }
    close(own);
    ASSERT_GT(child, 0);
    siblings.push_back(child);
  }
  close(inherited);
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
  for (std::size_t i = 0; i < siblings.size(); ++i) {
    Paths expected{{"inherited.txt", Reason::read_only}};
    if (i == 2) expected.emplace("read.txt", Reason::read_only);
    EXPECT_EQ(byPath(native, siblings[i]), expected) << "sibling " << i;
  }
  for (const auto& reference : native) {
    if (reference.pid == oddReader.pid()) {
      EXPECT_EQ(reference.name, item + "/" + oddName);
    }
    if (reference.pid == aliasReader.pid()) {
      EXPECT_EQ(reference.name, scratch.child("outside-link.txt"));
    }
    EXPECT_EQ(reference.throughOtherHardLink, reference.pid == aliasReader.pid()) << reference.name;
  }
}

TEST(MigrationOpenFilesListersTest, MappedFileOnABtrfsSubvolumeIsFoundByBothListers) {
  // Mappings name the file system's device, stat the subvolume's; lsof's note of the path's device finds the file.
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
  const auto manifest = scanned(item);
  const auto index = MigrationOpenFiles::fileIndex(manifest);
  int rechecks = 0;
  // The occupant quits while the check waits; the re-check finds the item idle.
  auto quitThenRecheck = [&](int attempt) { return holder.reset(), attempt <= 1; };
  EXPECT_NO_THROW(MigrationOpenFiles::requireIdle(
      item, index, MigrationOpenFiles::defaultInspect(), quitThenRecheck, [&] { ++rechecks; },
      MigrationOpenFiles::defaultIdentify()));
  EXPECT_EQ(rechecks, 1);
  auto stubborn = OccupantProcess::holdingFile(item + "/held.txt", O_RDONLY);
  try {
    MigrationOpenFiles::requireIdle(
        item, index, MigrationOpenFiles::defaultInspect(),
        MigrationOpenFiles::waitBetweenRechecks(2, std::chrono::milliseconds(10)), [&] { ++rechecks; },
        MigrationOpenFiles::defaultIdentify());
    FAIL() << "an item held open must block";
  } catch (const MigrationOpenFiles::Blocked& blocked) {
    EXPECT_EQ(rechecks, 3);
    ASSERT_EQ(blocked.groups().size(), 1u);
    EXPECT_EQ(blocked.groups()[0].pids, std::vector<pid_t>{stubborn.pid()});
    EXPECT_EQ(blocked.source(), item);
    EXPECT_EQ(blocked.key(), "migration.occupancy.header");
  }
}

// What the check concludes about `item`: "idle", the pids that hold it, or the key of its issue.
std::string verdictOf(const std::string& item, const MigrationOpenFiles::FileIndex& index) {
  try {
    MigrationOpenFiles::requireIdle(item, index, MigrationOpenFiles::defaultInspect(), MigrationOpenFiles::noRecheck(),
                                    {}, MigrationOpenFiles::defaultIdentify());
    return "idle";
  } catch (const MigrationOpenFiles::Blocked& blocked) {
    std::string pids = "held by";
    for (const auto& group : blocked.groups()) {
      for (pid_t pid : group.pids) pids += " " + std::to_string(pid);
    }
    return pids;
  } catch (const MigrationIssue& issue) {
    return issue.key();
  }
}

// Runs the check on a thread of its own while `mount` does not answer. A check still running after
// a generous bound has hung: the mount answers again so that the check, and the test, can end.
std::string checkedBeside(StallingFuseMount& mount, const std::function<std::string()>& check) {
  auto running = std::async(std::launch::async, check);
  const bool finished = running.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
  if (!finished) mount.resume();
  EXPECT_TRUE(finished) << "the check hung on a mount that does not answer";
  return running.get();
}

#define CORVANE_STALLING_FUSE_MOUNT(name)                                    \
  std::unique_ptr<StallingFuseMount> name;                                   \
  try {                                                                      \
    name = StallingFuseMount::create();                                      \
  } catch (const VolumeUnavailable& unavailable) {                           \
    GTEST_SKIP() << "needs a FUSE mount of its own: " << unavailable.what(); \
  }

TEST(MigrationOpenFilesHungMountTest, AMountElsewhereThatStopsAnsweringNeitherStallsTheCheckNorHidesTheOccupant) {
  CORVANE_STALLING_FUSE_MOUNT(share);
  TemporaryDirectory scratch;
  const std::string item = scratch.child("Item");
  writeFile(item + "/held.txt", "held\n");
  auto holder = OccupantProcess::holdingFile(item + "/held.txt", O_RDONLY);
  // Programs using the share the way programs use one: a file open, a working folder, a mapped file.
  auto reader = OccupantProcess::holdingFile(share->child("item/held.txt"), O_RDONLY);
  auto worker = OccupantProcess::workingIn(share->child("item"));
  auto mapper = OccupantProcess::mapping(share->child("item/held.txt"));
  const auto manifest = scanned(item);
  const auto index = MigrationOpenFiles::fileIndex(manifest);
  const auto stalled = share->stall();
  EXPECT_EQ(checkedBeside(*share, [&] { return verdictOf(item, index); }), "held by " + std::to_string(holder.pid()));
}

TEST(MigrationOpenFilesHungMountTest, AScanThatCannotFinishInTimeLeavesTheStateUnknown) {
  // The item itself lies on the mount that stops answering: the scan has to look there and cannot.
  CORVANE_STALLING_FUSE_MOUNT(share);
  const std::string item = share->child("item");
  auto holder = OccupantProcess::holdingFile(item + "/held.txt", O_RDONLY);
  MigrationManifest manifest;
  for (const std::string path : {"", "held.txt"}) manifest[path] = *entryAt(path.empty() ? item : item + "/" + path);
  const auto index = MigrationOpenFiles::fileIndex(manifest);
  EXPECT_EQ(verdictOf(item, index), "held by " + std::to_string(holder.pid())) << "while the mount answers";
  const ShortToolDeadlines brief;
  const auto stalled = share->stall();
  EXPECT_EQ(checkedBeside(*share, [&] { return verdictOf(item, index); }), "migration.preflight.occupancy_unknown");
}

TEST(MigrationOccupancyDescriptionTest, FiveOpenPathsShowTwoAndCountTheRest) {
  MigrationOpenFiles::Group editor{
      GroupKind::process, "editor", {311, 312}, {}, {Reason::writable, Reason::working_directory}};
  for (const auto* path : {"a.txt", "b.txt", "c.txt", "d.txt", "e.txt"}) editor.paths.push_back({path, std::nullopt});
  editor.paths[1].openedAs = "/Backups/b-link.txt";
  auto reasonLine = [](Reason reason) {
    const std::string name(MigrationOpenFiles::reasonName(reason));
    return localizedFormat("occupancy.message.reason", localized("migration.occupancy.reason_" + name),
                           localized("migration.occupancy.kind_" + name));
  };
  EXPECT_EQ(
      MigrationOccupancyDescription::message(MigrationOpenFiles::Blocked("/Users/me/Projects", {editor})),
      localizedFormat("migration.occupancy.header", "Projects") + "\n" +
          localizedFormat("migration.occupancy.group", "editor",
                          localizedFormat("migration.occupancy.pids", "311, 312")) +
          "\n" + reasonLine(Reason::writable) + "\n" + reasonLine(Reason::working_directory) + "\n" +
          localizedFormat("migration.occupancy.reference", "Projects/a.txt") + "\n" +
          localizedFormat("migration.occupancy.reference", localizedFormat("migration.occupancy.hardlink_alias",
                                                                           "Projects/b.txt", "/Backups/b-link.txt")) +
          "\n" + localizedFormat("migration.occupancy.more_paths", 3));
}

}  // namespace
}  // namespace corvane
