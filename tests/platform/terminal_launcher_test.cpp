#include "platform/terminal_launcher.h"

#include <gtest/gtest.h>

#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"

namespace corvane::platform {
namespace {

// Only the choice and the arguments: no terminal is ever opened here.
TEST(TerminalLauncherTest, TheFirstInstalledEmulatorRunsTheCommandThroughTheShell) {
  TemporaryDirectory work;
  writeFile(work.child("a/konsole"), "", 0755);
  writeFile(work.child("b/gnome-terminal"), "", 0755);
  writeFile(work.child("b/x-terminal-emulator"), "", 0644);  // not executable: passed over
  makeDirectories(work.child("c/xterm"));                    // a folder of that name neither

  const std::string command = "grep -q \"UUID=X\" /etc/fstab || echo 'a b'";
  EXPECT_EQ(terminalEmulatorCommand(command, "relative:" + work.child("a") + "::" + work.child("b")),
            (std::vector<std::string>{work.child("b/gnome-terminal"), "--", "/bin/sh", "-c", command}))
      << "the preferred emulator wins wherever it is in the search path";
  EXPECT_EQ(terminalEmulatorCommand(command, work.child("c") + ":" + work.child("a")),
            (std::vector<std::string>{work.child("a/konsole"), "-e", "/bin/sh", "-c", command}));
  EXPECT_FALSE(terminalEmulatorCommand(command, work.child("c")));

  EXPECT_EQ(terminalAppleScript("echo \"x\" \\ y"),
            "tell application \"Terminal\"\n    activate\n    do script \"echo \\\"x\\\" \\\\ y\"\nend tell");
}

}  // namespace
}  // namespace corvane::platform
