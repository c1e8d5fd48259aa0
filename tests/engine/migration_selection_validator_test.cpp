// Which folders may never be moved, on each system, and the refusal a selection of one gets.
#include <gtest/gtest.h>
#include <unistd.h>

#include "catalogue/protected_locations.h"
#include "engine/migration_selection_validator.h"
#include "fixtures/temporary_directory.h"

namespace corvane {
namespace {

TEST(MigrationSelectionValidatorTest, RefusesProtectedPathsWithTheSelectionErrorAndItsText) {
  std::vector<std::string> asked;
  const MigrationSelectionValidator validator([&](const std::string& path) {
    asked.push_back(path);
    return path == "/etc";
  });
  EXPECT_FALSE(validator.validate("/home/ann/Projects").has_value());
  const auto refusal = validator.validate("/etc");
  ASSERT_TRUE(refusal.has_value());
  EXPECT_EQ(refusal->domain, "Corvane.Selection");
  EXPECT_EQ(refusal->code, 1);
  EXPECT_EQ(refusal->localizedDescription, "“/etc” is protected and can't be moved.");
  EXPECT_EQ(asked, (std::vector<std::string>{"/home/ann/Projects", "/etc"}));
}

TEST(ProtectedLocationsTest, LinuxKeepsTheSystemTreesTheHomeAndEveryFolderAboveThemAndLinksToThem) {
  const auto locations = ProtectedLocations::forHost(platform::HostSystem::linuxDesktop, "/home/ann");
  for (const std::string path : {"/", "/usr", "/usr/local/bin/tool", "/bin", "/etc", "/etc/ssh", "/boot/efi", "/proc/1",
                                 "/sys/class", "/dev/null", "/var/lib", "/var/lib/docker", "/run/user/1000", "/var",
                                 "/home", "/home/ann", "/home/ann/", "/home/ann/x/..", "/home//ann", "/tmp", "/media",
                                 "/mnt", "/root", "relative/path", ""}) {
    EXPECT_TRUE(locations.isProtected(path)) << path;
  }
  for (const std::string path : {"/home/ann/Projects", "/home/ann/.cache", "/home/ann/.local/share/Steam", "/opt/tool",
                                 "/srv/data", "/var/log", "/var/cache/big", "/tmp/build", "/media/ann/Disk/x",
                                 "/usrx", "/home/annex", "/home/bob/Videos"}) {
    EXPECT_FALSE(locations.isProtected(path)) << path;
  }
  // A link is judged by where it leads too.
  TemporaryDirectory dir;
  ASSERT_EQ(::symlink("/etc", dir.child("settings").c_str()), 0);
  ASSERT_EQ(::symlink("/usr/share", dir.child("shared").c_str()), 0);
  EXPECT_TRUE(locations.isProtected(dir.child("settings")));
  EXPECT_TRUE(locations.isProtected(dir.child("shared/doc")));
  EXPECT_FALSE(locations.isProtected(dir.child("plain")));
}

TEST(ProtectedLocationsTest, MacKeepsTheSystemTheSimulatorFolderAndTheTopFolders) {
  const auto locations = ProtectedLocations::forHost(platform::HostSystem::macOS, "/Users/ann");
  for (const std::string path : {"/", "/System", "/System/Applications/Safari.app", "/usr/local", "/private/var/db",
                                 "/Library/Developer/CoreSimulator/Devices", "/Library", "/Library/Developer",
                                 "/Applications", "/Users", "/Users/ann", "/Users/ann/Library", "/Volumes"}) {
    EXPECT_TRUE(locations.isProtected(path)) << path;
  }
  for (const std::string path : {"/Applications/Foo.app", "/Users/ann/Library/Developer/Xcode/DerivedData",
                                 "/Library/Application Support/Foo", "/Users/ann/Movies", "/opt/homebrew",
                                 "/Library/Developer/CoreSimulatorX"}) {
    EXPECT_FALSE(locations.isProtected(path)) << path;
  }
}

}  // namespace
}  // namespace corvane
