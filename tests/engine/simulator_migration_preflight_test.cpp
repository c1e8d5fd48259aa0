#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "engine/migration_issue.h"
#include "engine/simulator_migration_preflight.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/host_system.h"
#include "platform/posix_error.h"
#include "platform/simulator_tools.h"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using Preflight = SimulatorMigrationPreflight;

// Runs `body` and returns the issue it throws (empty key when it throws none).
template <typename Body>
MigrationIssue issueOf(Body body) {
  try {
    body();
  } catch (const MigrationIssue& issue) {
    return issue;
  }
  return MigrationIssue("");
}

// A stand-in for xcrun: a shell script that checks its arguments, records its process id and
// then does what the test asks (print a listing, fail, hang).
class FakeListingTool {
 public:
  explicit FakeListingTool(const std::string& body) : path_(directory_.child("xcrun")) {
    writeFile(path_,
              "#!/bin/sh\n"
              "echo $$ > '" + pidFile() + "'\n"
              "if [ \"$*\" != 'simctl list devices --json' ]; then echo \"unexpected: $*\" >&2; exit 64; fi\n" +
                  body + "\n",
              0755);
  }
  const std::string& path() const { return path_; }
  std::string pidFile() const { return directory_.child("pid"); }
  pid_t pid() const {
    std::ifstream in(pidFile());
    pid_t value = 0;
    in >> value;
    return value;
  }
  std::string child(const std::string& name) const { return directory_.child(name); }

 private:
  TemporaryDirectory directory_;
  std::string path_;
};

std::string listingScript(const std::string& json) { return "cat <<'JSON'\n" + json + "\nJSON"; }

const char* kAllShutdown = R"({
  "devices" : {
    "com.apple.CoreSimulator.SimRuntime.iOS-17-2" : [
      { "state" : "Shutdown", "name" : "iPhone 15", "udid" : "6A3C…", "isAvailable" : true },
      { "state" : "Shutdown", "name" : "iPad Air" }
    ],
    "com.apple.CoreSimulator.SimRuntime.watchOS-10-2" : [ ]
  },
  "extra" : 1
})";

// Short bounds so the hanging cases end quickly; the real bounds are checked separately.
constexpr platform::ProcessDeadlines kTestDeadlines{300ms, 300ms, 300ms};

// Not running: gone entirely, or a zombie waiting for a parent other than us.
bool isStillRunning(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  if (!stat) return false;
  std::string pidText, name, state;
  stat >> pidText >> name >> state;
  return state != "Z";
}

TEST(SimulatorDeviceCheckTest, ShutDownOrAbsentDevicesPassAndAnyOtherStateRefuses) {
  EXPECT_NO_THROW(Preflight::checkDevices(FakeListingTool(listingScript(kAllShutdown)).path(), kTestDeadlines));
  EXPECT_NO_THROW(Preflight::checkDevices(FakeListingTool(listingScript(R"({"devices":{}})")).path(), kTestDeadlines));
  for (const std::string state : {"Booted", "Booting", "Shutting Down", "shutdown", ""}) {
    SCOPED_TRACE(state);
    const FakeListingTool tool(listingScript(R"({"devices":{"r1":[{"state":"Shutdown"}],"r2":[{"state":")" + state +
                                             R"("}]}})"));
    const auto issue = issueOf([&] { Preflight::checkDevices(tool.path(), kTestDeadlines); });
    EXPECT_EQ(issue.key(), "error.simulator_running");
    EXPECT_EQ(issue.detail(), "");
  }
}

TEST(SimulatorDeviceCheckTest, UndecodableListingsFailWithTheDecodersDescription) {
  for (const std::string output : {"garbage", "", R"({"devices":[]})", R"({"runtimes":{}})", R"({"devices":{"r":[{}]}})",
                                   R"({"devices":{"r":[{"state":1}]}})", R"({"devices":{"r":{"state":"Shutdown"}}})",
                                   R"([{"devices":{}}])", R"({"devices":{"r":[{"state":"Shutdown"}]})"}) {
    SCOPED_TRACE(output);
    const auto issue = issueOf([&] { Preflight::validateDeviceList(output); });
    EXPECT_EQ(issue.key(), "error.simulator_check_failed");
    EXPECT_FALSE(issue.detail().empty());
  }
  const FakeListingTool tool("echo 'xcrun: error: unable to find utility \"simctl\"'");
  EXPECT_EQ(issueOf([&] { Preflight::checkDevices(tool.path(), kTestDeadlines); }).key(), "error.simulator_check_failed");
}

TEST(SimulatorDeviceCheckTest, AFailingToolReportsItsExitStatus) {
  const FakeListingTool tool(listingScript(kAllShutdown) + "\necho 'simctl broke' >&2; exit 3");
  const auto issue = issueOf([&] { Preflight::checkDevices(tool.path(), kTestDeadlines); });
  EXPECT_EQ(issue.key(), "error.simulator_check_failed");
  EXPECT_EQ(issue.detail(), "simctl exit 3");
  EXPECT_NE(issue.localizedDescription().find("simctl exit 3"), std::string::npos);
  const FakeListingTool killed("kill -9 $$");
  EXPECT_EQ(issueOf([&] { Preflight::checkDevices(killed.path(), kTestDeadlines); }).detail(), "simctl exit 9");
}

TEST(SimulatorDeviceCheckTest, AToolThatHangsIsTerminatedThenKilledAndReaped) {
  // Ignores the terminate request, so only the kill ends it.
  const FakeListingTool stubborn("trap '' TERM\necho '{\"devices\":' \nexec sleep 1000");
  const auto issue = issueOf([&] { Preflight::checkDevices(stubborn.path(), kTestDeadlines); });
  EXPECT_EQ(issue.key(), "error.simulator_check_failed");
  EXPECT_EQ(issue.detail(), "simctl timeout");
  ASSERT_GT(stubborn.pid(), 0);
  // Reaped by us: not even a zombie is left.
  EXPECT_EQ(::kill(stubborn.pid(), 0), -1);
  EXPECT_EQ(errno, ESRCH);

  // A tool that starts a helper and waits for it: the helper goes down with it.
  const FakeListingTool parent("sleep 1000 &\necho $! > '" + stubborn.child("helper") + "'\nwait");
  EXPECT_EQ(issueOf([&] { Preflight::checkDevices(parent.path(), kTestDeadlines); }).detail(), "simctl timeout");
  std::ifstream helperFile(stubborn.child("helper"));
  pid_t helper = 0;
  helperFile >> helper;
  ASSERT_GT(helper, 0);
  EXPECT_FALSE(isStillRunning(helper));
}

TEST(SimulatorDeviceCheckTest, OutputLeftOpenByAnotherProcessCountsAsUnread) {
  const FakeListingTool tool(listingScript(kAllShutdown) + "\nsleep 1000 &\necho $! > \"$(dirname \"$0\")/helper\"\nexit 0");
  const auto issue = issueOf([&] { Preflight::checkDevices(tool.path(), kTestDeadlines); });
  EXPECT_EQ(issue.key(), "error.simulator_check_failed");
  EXPECT_EQ(issue.detail(), "simctl exit 0");
  std::ifstream helperFile(tool.child("helper"));
  pid_t helper = 0;
  helperFile >> helper;
  if (helper > 0) ::kill(helper, SIGKILL);
}

TEST(SimulatorDeviceCheckTest, AToolThatCannotStartIsAPlatformErrorAndNoToolMeansNoCheck) {
  TemporaryDirectory dir;
  EXPECT_THROW(Preflight::checkDevices(dir.child("missing-xcrun"), kTestDeadlines), platform::PosixError);
  writeFile(dir.child("not-executable"), "#!/bin/sh\n", 0644);
  if (::geteuid() != 0) {
    EXPECT_THROW(Preflight::checkDevices(dir.child("not-executable"), kTestDeadlines), platform::PosixError);
  }
  EXPECT_NO_THROW(Preflight::checkDevices(std::nullopt, kTestDeadlines));
  // This system's answer: simulators exist only on macOS.
  if (platform::hostSystem() == platform::HostSystem::macOS) {
    EXPECT_EQ(platform::simulatorListingTool(), "/usr/bin/xcrun");
  } else {
    EXPECT_FALSE(platform::simulatorListingTool().has_value());
    EXPECT_FALSE(Preflight::defaultServices().listingTool.has_value());
  }
  EXPECT_EQ(Preflight::kListingDeadlines.exit, 15000ms);
  EXPECT_EQ(Preflight::kListingDeadlines.afterTerminate, 2000ms);
  EXPECT_EQ(Preflight::kListingDeadlines.readers, 2000ms);
}

TEST(SimulatorPathCheckTest, OnlyTheSystemFolderAndWhatLiesInsideItAreRefused) {
  for (const std::string path : {"/Library/Developer/CoreSimulator", "/Library/Developer/CoreSimulator/",
                                 "/Library/Developer/CoreSimulator/Profiles/Runtimes",
                                 "/Library/Developer/Tools/../CoreSimulator/Devices", "//Library/./Developer/CoreSimulator"}) {
    const auto issue = issueOf([&] { Preflight::validateSystemPath(path); });
    EXPECT_EQ(issue.key(), "error.simulator_system_directory") << path;
    EXPECT_EQ(issue.detail(), path);
  }
  for (const std::string path : {"/Library/Developer/CoreSimulatorX", "/Library/Developer", "/Library/Developer/CoreSimulatorBackup/x",
                                 "/Users/a/Library/Developer/CoreSimulator"}) {
    EXPECT_NO_THROW(Preflight::validateSystemPath(path)) << path;
  }
  // A link that leads into the system folder is judged by where it leads.
  TemporaryDirectory dir;
  ASSERT_EQ(::symlink("/Library/Developer/CoreSimulator/Devices", dir.child("devices").c_str()), 0);
  EXPECT_EQ(issueOf([&] { Preflight::validateSystemPath(dir.child("devices")); }).key(), "error.simulator_system_directory");
}

TEST(SimulatorPathCheckTest, UserDataIsTheHomesSimulatorFolderAndWhatLiesInsideIt) {
  TemporaryDirectory home;
  const std::string base = home.child("Library/Developer/CoreSimulator");
  EXPECT_TRUE(Preflight::isUserData(base, home.path()));
  EXPECT_TRUE(Preflight::isUserData(base + "/Devices/ABC", home.path()));
  EXPECT_TRUE(Preflight::isUserData(home.child("Library/Developer/Xcode/../CoreSimulator"), home.path() + "/"));
  EXPECT_FALSE(Preflight::isUserData(base + "Backup", home.path()));
  EXPECT_FALSE(Preflight::isUserData(home.child("Library/Developer"), home.path()));
  EXPECT_FALSE(Preflight::isUserData("/Library/Developer/CoreSimulator", home.path()));
  makeDirectories(base + "/Devices");
  ASSERT_EQ(::symlink((base + "/Devices").c_str(), home.child("shortcut").c_str()), 0);
  EXPECT_TRUE(Preflight::isUserData(home.child("shortcut"), home.path()));
}

// The services of a check that records what it was asked.
struct ScriptedServices {
  Preflight::Services services;
  int volumeQueries = 0;
  int applicationQueries = 0;

  ScriptedServices(const std::string& home, Preflight::VolumeSupport support, std::set<std::string> running,
                   std::optional<std::string> tool) {
    services.homeDirectory = home;
    services.volumeSupport = [this, support](const std::string&) {
      ++volumeQueries;
      return support;
    };
    services.runningApplications = [this, running] {
      ++applicationQueries;
      return running;
    };
    services.listingTool = std::move(tool);
    services.listingDeadlines = kTestDeadlines;
  }
};

TEST(SimulatorPreflightTest, ItemsOutsideSimulatorDataSkipEveryLaterCheck) {
  TemporaryDirectory home;
  // Everything would fail: no volume support, Xcode running, a tool that cannot start.
  ScriptedServices scripted(home.path(), {false, std::nullopt}, {"com.apple.dt.Xcode"}, home.child("no-such-tool"));
  EXPECT_NO_THROW(Preflight::check(home.child("Projects"), "/media/disk/Directories/x", scripted.services));
  EXPECT_NO_THROW(Preflight::check(home.child("Library/Developer/CoreSimulatorBackup"), "/media/x", scripted.services));
  EXPECT_EQ(scripted.volumeQueries, 0);
  EXPECT_EQ(scripted.applicationQueries, 0);
  EXPECT_EQ(issueOf([&] { Preflight::check("/Library/Developer/CoreSimulator", "/x", scripted.services); }).key(),
            "error.simulator_system_directory");
}

TEST(SimulatorPreflightTest, UserDataNeedsACapableVolumeNoSimulatorProgramsAndShutDownDevices) {
  TemporaryDirectory home;
  const std::string source = home.child("Library/Developer/CoreSimulator/Devices");
  const FakeListingTool booted(listingScript(R"({"devices":{"r":[{"state":"Booted"}]}})"));
  const FakeListingTool idle(listingScript(kAllShutdown));
  struct Case {
    Preflight::VolumeSupport support;
    std::set<std::string> running;
    std::optional<std::string> tool;
    std::string expectedKey;  // empty: passes
  };
  const std::vector<Case> cases = {
      {{true, true}, {}, idle.path(), ""},
      {{true, true}, {"com.example.editor"}, std::nullopt, ""},
      {{true, std::nullopt}, {}, idle.path(), "error.simulator_filesystem"},
      {{std::nullopt, true}, {}, idle.path(), "error.simulator_filesystem"},
      {{false, true}, {}, idle.path(), "error.simulator_filesystem"},
      {{true, true}, {"com.apple.dt.Xcode"}, idle.path(), "error.simulator_running"},
      {{true, true}, {"com.apple.iphonesimulator"}, idle.path(), "error.simulator_running"},
      {{true, true}, {}, booted.path(), "error.simulator_running"},
      {{false, false}, {"com.apple.dt.Xcode"}, booted.path(), "error.simulator_filesystem"},
  };
  for (std::size_t index = 0; index < cases.size(); ++index) {
    SCOPED_TRACE(index);
    ScriptedServices scripted(home.path(), cases[index].support, cases[index].running, cases[index].tool);
    const auto issue = issueOf([&] { Preflight::check(source, "/media/disk/Directories" + source, scripted.services); });
    EXPECT_EQ(issue.key(), cases[index].expectedKey);
    EXPECT_EQ(issue.detail(), "");
  }
}

TEST(SimulatorPreflightTest, TheRealVolumeProbeDecidesWhetherSimulatorDataMayGoThere) {
  for (const auto& [kind, expectedKey] : {std::pair{VolumeKind::ext4, std::string()},
                                          std::pair{VolumeKind::fat, std::string("error.simulator_filesystem")}}) {
    SCOPED_TRACE(volumeKindName(kind));
    CORVANE_TEST_VOLUME(volume, kind);
    TemporaryDirectory home;
    auto services = Preflight::defaultServices();
    services.homeDirectory = home.path();
    const std::string source = home.child("Library/Developer/CoreSimulator");
    // The destination does not exist yet; its volume is that of the nearest existing folder.
    const auto issue = issueOf([&] { Preflight::check(source, volume->child("Directories" + source), services); });
    EXPECT_EQ(issue.key(), expectedKey);
  }
}

}  // namespace
}  // namespace corvane
