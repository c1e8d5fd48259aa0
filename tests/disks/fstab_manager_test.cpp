#include "disks/fstab_manager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "disks/fstab_commands.h"
#include "fixtures/loop_disk.h"
#include "fixtures/sample_tree.h"
#include "fixtures/shell_administrator_runner.h"
#include "fixtures/temporary_directory.h"
#include "platform/process.h"

namespace corvane {
namespace {

TEST(FstabCommandsTest, TheTextsAreExactAndAQuoteInAPathCannotBreakThem) {
  const std::string line = fstabLine("ABCD-1234", "/Volumes/My Disk's", "apfs", "rw,auto", false);
  EXPECT_EQ(line, "UUID=ABCD-1234    /Volumes/My\\040Disk's    apfs    rw,auto");
  EXPECT_EQ(fstabLine("U", "/media/a\tb\\c", "ext4", "rw,nofail", true),
            "UUID=U    /media/a\\011b\\134c    ext4    rw,nofail");

  EXPECT_EQ(
      manualProtectionCommand("ABCD-1234", line),
      "grep -q \"UUID=ABCD-1234\" /etc/fstab 2>/dev/null || echo 'UUID=ABCD-1234    /Volumes/My\\040Disk'\\''s    "
      "apfs    rw,auto' | sudo tee -a /etc/fstab");

  // The quote escaped twice over, then backslashes and double quotes for the script string.
  const std::string twice = "UUID=ABCD-1234    /Volumes/My\\\\040Disk'\\\\''\\\\'\\\\'''\\\\''s    apfs    rw,auto";
  EXPECT_EQ(macProtectionAppleScript("/private/etc/fstab", line),
            "do shell script \"if [ -f /private/etc/fstab ]; then chflags nouchg /private/etc/fstab; fi; "
            "if [ -f /private/etc/fstab ]; then cp /private/etc/fstab /private/etc/fstab.bak; fi; "
            "if [ ! -f /private/etc/fstab ]; then echo '" +
                twice + "' | tee /private/etc/fstab >/dev/null; else echo '\\\\n" + twice +
                "' | tee -a /private/etc/fstab >/dev/null; fi; "
                "chown root:wheel /private/etc/fstab; chmod 644 /private/etc/fstab\" with administrator privileges");
  EXPECT_EQ(macTerminalAppleScript("echo \"x\" \\ y"),
            "tell application \"Terminal\"\n    activate\n    do script \"echo \\\"x\\\" \\\\ y\"\nend tell");
  EXPECT_EQ(macGhostRemovalAppleScript("/Volumes/A \"B\""),
            "do shell script \"rm -rf \\\"/Volumes/A \\\"B\\\"\\\"\" with administrator privileges");
  // Linux writes with printf: the echo of dash would turn "\040" into a blank.
  EXPECT_EQ(linuxManualProtectionCommand("ABCD-1234", "UUID=ABCD-1234    /media/My\\040Disk's", "/etc/fstab"),
            "grep -q \"UUID=ABCD-1234\" '/etc/fstab' 2>/dev/null || printf '%s\\n' 'UUID=ABCD-1234    "
            "/media/My\\040Disk'\\''s' | sudo tee -a '/etc/fstab'");
}

// A disk mounted at a path with a blank below a temporary volumes root, a temporary table, and a
// runner that does what a granted administrator dialog would.
class FstabManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      disk_ = LoopDisk::create("My Disk");
    } catch (const VolumeUnavailable& unavailable) {
      GTEST_SKIP() << "needs a loop disk: " << unavailable.what();
    }
    mkdir(root().c_str(), 0755);
    disk_->mount(volume());
    FstabManager::Configuration configuration;
    configuration.fstabPath = work_.child("etc/fstab");
    configuration.volumesRoots = {root()};
    configuration.administratorRunner = runner_;
    configuration.isSIPEnabled = [this] { return sipEnabled_; };
    configuration.describeVolume = [](const std::string& path) { return platform::describeVolume(path); };
    fstab_ = std::make_unique<FstabManager>(configuration);
    mkdir(work_.child("etc").c_str(), 0755);
  }

  std::string root() const { return work_.child("Volumes"); }
  std::string volume() const { return root() + "/My Disk"; }
  std::string table() const { return readFile(work_.child("etc/fstab")); }

  TemporaryDirectory work_;
  std::unique_ptr<LoopDisk> disk_;
  std::shared_ptr<ShellAdministratorRunner> runner_ = std::make_shared<ShellAdministratorRunner>();
  bool sipEnabled_ = false;
  std::unique_ptr<FstabManager> fstab_;
};

TEST_F(FstabManagerTest, ProtectionRoundTripsAndOnlyAnUncommentedEntryWithTheUuidCounts) {
  const auto uuid = fstab_->getVolumeUUID(volume());
  ASSERT_TRUE(uuid);
  std::string lower = *uuid;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  std::string upper = *uuid;
  std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });

  writeFile(work_.child("etc/fstab"),
            "# UUID=" + *uuid + " /x ext4 rw\n  #UUID=" + *uuid + " /y ext4 rw\n/dev/sda1 / ext4 rw");
  EXPECT_FALSE(fstab_->isDiskProtected(volume()));
  writeFile(work_.child("etc/fstab"), "\tUUID=" + upper + "  /elsewhere ext4 rw\n");
  EXPECT_TRUE(fstab_->isDiskProtected(volume())) << "the UUID field alone decides, in any case";
  writeFile(work_.child("etc/fstab"), "UUID=" + lower + " /elsewhere ext4 rw\n");
  EXPECT_TRUE(fstab_->isDiskProtected(volume()));

  // Enabling: system protection fails at once, a dismissed dialog changes nothing. The entry of a
  // disk that is not attached now is no reason to refuse.
  const std::string before = "UUID=0000-ABSENT /media/absent ext4 rw,nofail 0 0";  // no line break at the end
  writeFile(work_.child("etc/fstab"), before);
  sipEnabled_ = true;
  auto refused = fstab_->enableDiskProtection(volume());
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->code, -999);
  EXPECT_EQ(refused->message, "Operation not permitted (SIP Enabled) - Fast Fail");
  EXPECT_TRUE(runner_->commands.empty()) << "no prompt";
  sipEnabled_ = false;
  runner_->dismissed = true;
  auto cancelled = fstab_->enableDiskProtection(volume());
  ASSERT_TRUE(cancelled);
  EXPECT_EQ(cancelled->code, -128);
  EXPECT_EQ(cancelled->message, "User canceled authorization");
  EXPECT_EQ(table(), before);

  // A step that fails leaves the table whole: a table that no longer parses, or a folder that
  // cannot take the new file.
  runner_->dismissed = false;
  runner_->beforeRun = [&](const std::string&) {
    ASSERT_EQ(system(("chattr +i '" + work_.child("etc") + "'").c_str()), 0);
  };
  auto failed = fstab_->enableDiskProtection(volume());
  ASSERT_EQ(system(("chattr -i '" + work_.child("etc") + "'").c_str()), 0);
  ASSERT_TRUE(failed);
  EXPECT_EQ(table(), before);

  // A table findmnt rejects: refused with the command's exit status, nothing left beside it.
  runner_->beforeRun = nullptr;
  const std::string broken = before + "\nnot-a-table-line\n";
  writeFile(work_.child("etc/fstab"), broken);
  failed = fstab_->enableDiskProtection(volume());
  ASSERT_TRUE(failed);
  EXPECT_GT(failed->code, 0);
  EXPECT_EQ(failed->key, "fstab.error.failed");
  EXPECT_EQ(table(), broken);
  for (const auto& entry : std::filesystem::directory_iterator(work_.child("etc")))
    EXPECT_EQ(entry.path().filename().string().find("corvane"), std::string::npos) << entry.path();

  writeFile(work_.child("etc/fstab"), before);
  EXPECT_FALSE(fstab_->enableDiskProtection(volume()));
  EXPECT_EQ(table(), before + "\nUUID=" + *uuid + "    " + root() + "/My\\040Disk    ext4    rw,nofail\n");
  EXPECT_EQ(readFile(work_.child("etc/fstab.bak")), before);
  EXPECT_TRUE(fstab_->isDiskProtected(volume()));
  const auto commandsSoFar = runner_->commands.size();
  EXPECT_FALSE(fstab_->enableDiskProtection(volume())) << "already protected";
  EXPECT_EQ(runner_->commands.size(), commandsSoFar);

  // The manual command, run by /bin/sh as the terminal runs it (sudo passes straight through as
  // root), writes the same line to a fresh table.
  writeFile(work_.child("etc/fstab"), "");
  auto manual = fstab_->getProtectionShellCommand(volume());
  ASSERT_TRUE(manual);
  writeFile(work_.child("bin/sudo"), "#!/bin/sh\nexec \"$@\"\n");
  ASSERT_EQ(chmod(work_.child("bin/sudo").c_str(), 0755), 0);
  platform::ProcessRequest request;
  request.executable = "/bin/sh";
  request.arguments = {"-c", *manual};
  request.environment = platform::currentEnvironment();
  (*request.environment)["PATH"] = work_.child("bin") + ":" + (*request.environment)["PATH"];
  ASSERT_TRUE(platform::runProcess(request).exit.succeeded());
  EXPECT_EQ(table(), "UUID=" + *uuid + "    " + root() + "/My\\040Disk    ext4    rw,nofail\n");
}

TEST_F(FstabManagerTest, AGhostFolderIsRemovedOnlyBelowARootNeverAMountAndOnlyAsShown) {
  // Refused before anything is asked.
  auto mountPoint = fstab_->cleanupGhostDirectory(volume());
  ASSERT_TRUE(mountPoint);
  EXPECT_EQ(mountPoint->code, -999);
  writeFile(work_.child("outside/file"), "x");
  auto outside = fstab_->cleanupGhostDirectory(work_.child("outside"));
  ASSERT_TRUE(outside);
  EXPECT_EQ(outside->code, -998);
  EXPECT_TRUE(runner_->commands.empty());

  const std::string hostile = root() + "/Backup 'a' \"b\" $(touch x) `y`\nz";
  writeFile(hostile + "/stale.txt", "12345");
  writeFile(hostile + "/deeper/more.txt", "678");
  writeFile(root() + "/Backup sibling/keep.txt", "keep");
  EXPECT_TRUE(fstab_->checkGhostDirectory(hostile));
  EXPECT_FALSE(fstab_->checkGhostDirectory(root() + "/Empty"));
  auto shown = fstab_->describeGhostDirectory(hostile);
  ASSERT_TRUE(shown);
  EXPECT_EQ(shown->entryCount, 3u);
  EXPECT_EQ(shown->totalBytes, 8);

  // Replaced after it was shown: left alone.
  ASSERT_EQ(rename(hostile.c_str(), (hostile + ".old").c_str()), 0);
  writeFile(hostile + "/other.txt", "other");
  auto changed = fstab_->cleanupGhostDirectory(hostile, &*shown);
  ASSERT_TRUE(changed);
  EXPECT_EQ(changed->key, "fstab.error.changed");
  EXPECT_TRUE(runner_->commands.empty());

  shown = fstab_->describeGhostDirectory(hostile);
  EXPECT_FALSE(fstab_->cleanupGhostDirectory(hostile, &*shown));
  struct stat status {};
  EXPECT_NE(lstat(hostile.c_str(), &status), 0);
  EXPECT_EQ(readFile(root() + "/Backup sibling/keep.txt"), "keep");
  EXPECT_EQ(readFile(hostile + ".old/stale.txt"), "12345");
  EXPECT_NE(lstat(work_.child("x").c_str(), &status), 0) << "nothing in the name was run";
}

}  // namespace
}  // namespace corvane
