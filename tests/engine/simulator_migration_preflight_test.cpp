// Places that may not be moved: protected locations, and the simulator-data check (device listings from stand-in
// xcrun scripts that hang, fail or lie; system and user folders; the real volume probe).
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>

#include "catalogue/protected_locations.h"
#include "engine/migration_selection_validator.h"
#include "engine/migration_test_support.h"
#include "engine/simulator_migration_preflight.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/host_system.h"
#include "platform/posix_error.h"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using Preflight = SimulatorMigrationPreflight;

// Short bounds so the hanging cases end quickly.
constexpr platform::ProcessDeadlines kTestDeadlines{300ms, 300ms, 300ms};

// A stand-in xcrun that checks its arguments, records its pid in `name`.pid, then runs `body`.
std::string fakeXcrun(const TemporaryDirectory& directory, const std::string& body, const std::string& name = "xcrun") {
  return writeScript(directory.path(), name,
                     "echo $$ > '" + directory.child(name + ".pid") + "'\n"
                     "if [ \"$*\" != 'simctl list devices --json' ]; then echo \"unexpected: $*\" >&2; exit 64; fi\n" +
                         body + "\n");
}

std::string listing(const std::string& json) { return "cat <<'JSON'\n" + json + "\nJSON"; }

pid_t pidIn(const std::string& file) {
  std::ifstream in(file);
  pid_t value = 0;
  in >> value;
  return value;
}

MigrationIssue checked(const std::string& tool) {
  return issueOf([&] { Preflight::checkDevices(tool, kTestDeadlines); });
}

const char* kAllShutdown = R"({"devices": {"com.apple.CoreSimulator.SimRuntime.iOS-17-2": [
    {"state": "Shutdown", "name": "iPhone 15", "udid": "6A3C…", "isAvailable": true}, {"state": "Shutdown"}],
  "com.apple.CoreSimulator.SimRuntime.watchOS-10-2": []}, "extra": 1})";

TEST(SimulatorDeviceCheckTest, ShutDownOrAbsentDevicesPassAndAnyOtherStateRefuses) {
  TemporaryDirectory directory;
  EXPECT_EQ(checked(fakeXcrun(directory, listing(kAllShutdown))).key(), "");
  EXPECT_EQ(checked(fakeXcrun(directory, listing(R"({"devices":{}})"))).key(), "");
  for (const std::string state : {"Booted", "Booting", "Shutting Down", "shutdown", ""}) {
    const auto issue = checked(fakeXcrun(directory, listing(R"({"devices":{"r1":[{"state":"Shutdown"}],"r2":[{"state":")" +
                                                             state + R"("}]}})")));
    EXPECT_EQ(issue.key(), "error.simulator_running") << state;
    EXPECT_EQ(issue.detail(), "") << state;
  }
  EXPECT_NO_THROW(Preflight::checkDevices(std::nullopt, kTestDeadlines)) << "no tool means no check";
}

TEST(SimulatorDeviceCheckTest, UndecodableListingsAndFailingOrHangingToolsFailTheCheckAndAreReaped) {
  for (const std::string output : {"garbage", "", R"({"devices":[]})", R"({"runtimes":{}})", R"({"devices":{"r":[{}]}})",
                                   R"({"devices":{"r":[{"state":1}]}})", R"({"devices":{"r":{"state":"Shutdown"}}})",
                                   R"([{"devices":{}}])", R"({"devices":{"r":[{"state":"Shutdown"}]})"}) {
    const auto issue = issueOf([&] { Preflight::validateDeviceList(output); });
    EXPECT_EQ(issue.key(), "error.simulator_check_failed") << output;
    EXPECT_FALSE(issue.detail().empty()) << "the decoder's description is kept: " << output;
  }
  TemporaryDirectory directory;
  EXPECT_EQ(checked(fakeXcrun(directory, "echo 'xcrun: error: unable to find utility \"simctl\"'")).key(),
            "error.simulator_check_failed");
  const auto failing = checked(fakeXcrun(directory, listing(kAllShutdown) + "\necho 'simctl broke' >&2; exit 3"));
  EXPECT_EQ(failing.key(), "error.simulator_check_failed");
  EXPECT_EQ(failing.detail(), "simctl exit 3");
  EXPECT_NE(failing.localizedDescription().find("simctl exit 3"), std::string::npos);
  EXPECT_EQ(checked(fakeXcrun(directory, "kill -9 $$")).detail(), "simctl exit 9");
  // Output left open by another process counts as unread.
  const auto leftOpen = checked(fakeXcrun(
      directory, listing(kAllShutdown) + "\nsleep 1000 &\necho $! > '" + directory.child("helper") + "'\nexit 0"));
  EXPECT_EQ(leftOpen.key(), "error.simulator_check_failed");
  EXPECT_EQ(leftOpen.detail(), "simctl exit 0");
  if (const pid_t helper = pidIn(directory.child("helper")); helper > 0) ::kill(helper, SIGKILL);

  EXPECT_THROW(Preflight::checkDevices(directory.child("missing-xcrun"), kTestDeadlines), platform::PosixError);
  // A tool that hangs and ignores the terminate request, so only the kill ends it.
  const auto stubborn = fakeXcrun(directory, "trap '' TERM\necho '{\"devices\":' \nexec sleep 1000", "stubborn");
  EXPECT_EQ(checked(stubborn).detail(), "simctl timeout");
  ASSERT_GT(pidIn(stubborn + ".pid"), 0);
  EXPECT_TRUE(processIsReaped(pidIn(stubborn + ".pid"))) << "reaped by us: not even a zombie is left";
  // A helper the tool waits for goes down with it (it may stay a zombie of another parent).
  EXPECT_EQ(checked(fakeXcrun(directory, "sleep 1000 &\necho $! > '" + directory.child("waiter") + "'\nwait")).detail(),
            "simctl timeout");
  ASSERT_GT(pidIn(directory.child("waiter")), 0);
  std::ifstream stat("/proc/" + std::to_string(pidIn(directory.child("waiter"))) + "/stat");
  std::string pidText, name, state;
  stat >> pidText >> name >> state;
  EXPECT_TRUE(!stat || state == "Z") << "the helper still runs";
}

TEST(SimulatorPathCheckTest, TheSystemFolderIsRefusedAndTheHomesFolderIsUserData) {
  for (const std::string path : {"/Library/Developer/CoreSimulator", "/Library/Developer/CoreSimulator/",
                                 "/Library/Developer/CoreSimulator/Profiles/Runtimes",
                                 "/Library/Developer/Tools/../CoreSimulator/Devices", "//Library/./Developer/CoreSimulator"}) {
    const auto issue = issueOf([&] { Preflight::validateSystemPath(path); });
    EXPECT_EQ(issue.key(), "error.simulator_system_directory") << path;
    EXPECT_EQ(issue.detail(), path);
  }
  for (const std::string path : {"/Library/Developer/CoreSimulatorX", "/Library/Developer",
                                 "/Library/Developer/CoreSimulatorBackup/x", "/Users/a/Library/Developer/CoreSimulator"}) {
    EXPECT_NO_THROW(Preflight::validateSystemPath(path)) << path;
  }
  // A link is judged by where it leads.
  TemporaryDirectory home;
  ASSERT_EQ(::symlink("/Library/Developer/CoreSimulator/Devices", home.child("devices").c_str()), 0);
  EXPECT_EQ(issueOf([&] { Preflight::validateSystemPath(home.child("devices")); }).key(), "error.simulator_system_directory");

  const std::string base = home.child("Library/Developer/CoreSimulator");
  makeDirectories(base + "/Devices");
  ASSERT_EQ(::symlink((base + "/Devices").c_str(), home.child("shortcut").c_str()), 0);
  for (const auto& [path, userData] : std::vector<std::pair<std::string, bool>>{
           {base, true}, {base + "/Devices/ABC", true}, {home.child("Library/Developer/Xcode/../CoreSimulator"), true},
           {home.child("shortcut"), true}, {base + "Backup", false}, {home.child("Library/Developer"), false},
           {"/Library/Developer/CoreSimulator", false}}) {
    EXPECT_EQ(Preflight::isUserData(path, home.path()), userData) << path;
  }
  EXPECT_TRUE(Preflight::isUserData(base, home.path() + "/"));
}

// Services that answer as scripted and count what they were asked.
struct ScriptedServices {
  Preflight::Services services;
  int queries = 0;
  ScriptedServices(const std::string& home, Preflight::VolumeSupport support, std::set<std::string> running,
                   std::optional<std::string> tool) {
    services.homeDirectory = home;
    services.volumeSupport = [this, support](const std::string&) { return ++queries, support; };
    services.runningApplications = [this, running] { return ++queries, running; };
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
  EXPECT_EQ(scripted.queries, 0);
  EXPECT_EQ(issueOf([&] { Preflight::check("/Library/Developer/CoreSimulator", "/x", scripted.services); }).key(),
            "error.simulator_system_directory");
}

TEST(SimulatorPreflightTest, UserDataNeedsACapableVolumeNoSimulatorProgramsAndShutDownDevices) {
  TemporaryDirectory home;
  const std::string source = home.child("Library/Developer/CoreSimulator/Devices");
  const auto booted = fakeXcrun(home, listing(R"({"devices":{"r":[{"state":"Booted"}]}})"), "booted");
  const auto idle = fakeXcrun(home, listing(kAllShutdown), "idle");
  struct Case {
    Preflight::VolumeSupport support;
    std::set<std::string> running;
    std::optional<std::string> tool;
    std::string expectedKey;  // empty: passes
  };
  const std::vector<Case> cases = {
      {{true, true}, {}, idle, ""},
      {{true, true}, {"com.example.editor"}, std::nullopt, ""},
      {{true, std::nullopt}, {}, idle, "error.simulator_filesystem"},
      {{std::nullopt, true}, {}, idle, "error.simulator_filesystem"},
      {{false, true}, {}, idle, "error.simulator_filesystem"},
      {{true, true}, {"com.apple.dt.Xcode"}, idle, "error.simulator_running"},
      {{true, true}, {"com.apple.iphonesimulator"}, idle, "error.simulator_running"},
      {{true, true}, {}, booted, "error.simulator_running"},
      {{false, false}, {"com.apple.dt.Xcode"}, booted, "error.simulator_filesystem"},
  };
  for (std::size_t index = 0; index < cases.size(); ++index) {
    ScriptedServices scripted(home.path(), cases[index].support, cases[index].running, cases[index].tool);
    const auto issue = issueOf([&] { Preflight::check(source, "/media/disk/Directories" + source, scripted.services); });
    EXPECT_EQ(issue.key(), cases[index].expectedKey) << "case " << index;
    EXPECT_EQ(issue.detail(), "") << "case " << index;
  }
}

TEST(SimulatorPreflightTest, TheRealVolumeProbeDecidesWhetherSimulatorDataMayGoThere) {
  for (const auto& [kind, expectedKey] : {std::pair{VolumeKind::ext4, std::string()},
                                          std::pair{VolumeKind::fat, std::string("error.simulator_filesystem")}}) {
    CORVANE_TEST_VOLUME(volume, kind);
    TemporaryDirectory home;
    auto services = Preflight::defaultServices();
    services.homeDirectory = home.path();
    const std::string source = home.child("Library/Developer/CoreSimulator");
    // The destination does not exist yet; its volume is that of the nearest existing folder.
    EXPECT_EQ(issueOf([&] { Preflight::check(source, volume->child("Directories" + source), services); }).key(), expectedKey)
        << volumeKindName(kind);
  }
}

TEST(ProtectedLocationsTest, SystemTreesHomesEveryFolderAboveThemAndLinksToThemAreKeptAndRefused) {
  struct Case {
    platform::HostSystem host;
    const char* home;
    std::vector<std::string> kept, movable;
  };
  const std::vector<Case> cases = {
      {platform::HostSystem::linuxDesktop, "/home/ann",
       {"/", "/usr", "/usr/local/bin/tool", "/bin", "/etc", "/etc/ssh", "/boot/efi", "/proc/1", "/sys/class", "/dev/null",
        "/var/lib", "/var/lib/docker", "/run/user/1000", "/var", "/home", "/home/ann", "/home/ann/", "/home/ann/x/..",
        "/home//ann", "/tmp", "/media", "/mnt", "/root", "relative/path", ""},
       {"/home/ann/Projects", "/home/ann/.cache", "/home/ann/.local/share/Steam", "/opt/tool", "/srv/data", "/var/log",
        "/var/cache/big", "/tmp/build", "/media/ann/Disk/x", "/usrx", "/home/annex", "/home/bob/Videos"}},
      {platform::HostSystem::macOS, "/Users/ann",
       {"/", "/System", "/System/Applications/Safari.app", "/usr/local", "/private/var/db",
        "/Library/Developer/CoreSimulator/Devices", "/Library", "/Library/Developer", "/Applications", "/Users",
        "/Users/ann", "/Users/ann/Library", "/Volumes"},
       {"/Applications/Foo.app", "/Users/ann/Library/Developer/Xcode/DerivedData", "/Library/Application Support/Foo",
        "/Users/ann/Movies", "/opt/homebrew", "/Library/Developer/CoreSimulatorX"}}};
  for (const auto& [host, home, kept, movable] : cases) {
    const auto locations = ProtectedLocations::forHost(host, home);
    for (const auto& path : kept) EXPECT_TRUE(locations.isProtected(path)) << path;
    for (const auto& path : movable) EXPECT_FALSE(locations.isProtected(path)) << path;
  }
  // A link is judged by where it leads too.
  const auto locations = ProtectedLocations::forHost(platform::HostSystem::linuxDesktop, "/home/ann");
  TemporaryDirectory dir;
  ASSERT_EQ(::symlink("/etc", dir.child("settings").c_str()), 0);
  ASSERT_EQ(::symlink("/usr/share", dir.child("shared").c_str()), 0);
  EXPECT_TRUE(locations.isProtected(dir.child("settings")));
  EXPECT_TRUE(locations.isProtected(dir.child("shared/doc")));
  EXPECT_FALSE(locations.isProtected(dir.child("plain")));
  // A selection of a protected place is refused with the selection error and its text.
  const MigrationSelectionValidator validator([&](const std::string& path) { return locations.isProtected(path); });
  EXPECT_FALSE(validator.validate("/home/ann/Projects").has_value());
  const auto refusal = validator.validate(dir.child("settings"));
  ASSERT_TRUE(refusal.has_value());
  EXPECT_EQ(refusal->domain, "Corvane.Selection");
  EXPECT_EQ(refusal->code, 1);
  EXPECT_EQ(refusal->localizedDescription, "“" + dir.child("settings") + "” is protected and can't be moved.");
}

}  // namespace
}  // namespace corvane
