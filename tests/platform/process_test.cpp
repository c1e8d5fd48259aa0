#include "platform/process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <thread>

#include "fixtures/temporary_directory.h"
#include "platform/posix_error.h"
#include "support/shell_quote.h"

namespace corvane::platform {
namespace {

using namespace std::chrono_literals;

ProcessRequest shell(const std::string& script) {
  ProcessRequest request;
  request.executable = "/bin/sh";
  request.arguments = {"-c", script};
  return request;
}

bool processExists(pid_t pid) { return ::kill(pid, 0) == 0; }

TEST(ProcessTest, RunsTheRequestAsGivenAndCollectsStatusOutputAndErrorSeparately) {
  auto result = runProcess(shell("printf 'out\\0put'; echo err >&2; exit 7"));
  EXPECT_EQ(result.exit.exitCode, 7);
  EXPECT_FALSE(result.timedOut);
  EXPECT_EQ(result.standardOutput, std::string("out\0put", 7));
  EXPECT_EQ(result.standardError, "err\n");

  ProcessRequest verbatim;
  verbatim.executable = "printf";  // looked up in PATH; no shell in between
  verbatim.arguments = {"%s|", "a b", "$HOME", "it's", "*", ""};
  EXPECT_EQ(runProcess(verbatim).standardOutput, "a b|$HOME|it's|*||");

  TemporaryDirectory dir;
  ProcessRequest request = shell("pwd; echo \"[$ONLY][$HOME]\"; cat");
  request.environment = std::map<std::string, std::string>{{"ONLY", "this"}, {"PATH", "/usr/bin:/bin"}};
  request.workingDirectory = dir.path();
  request.standardInput = std::string(200000, 'i');  // more than a pipe holds at once
  result = runProcess(request);
  ASSERT_TRUE(result.exit.succeeded()) << result.standardError;
  EXPECT_EQ(result.standardOutput, dir.path() + "\n[this][]\n" + std::string(200000, 'i'));
}

TEST(ProcessTest, OutputBeyondTheLimitIsDrainedAndDropped) {
  ProcessRequest request = shell("head -c 3000000 /dev/zero; echo done >&2");
  request.outputLimit = 1000;
  auto result = runProcess(request);
  // The child is never blocked on a full pipe, so it ends normally.
  EXPECT_TRUE(result.exit.succeeded());
  EXPECT_TRUE(result.outputTruncated);
  EXPECT_EQ(result.standardOutput.size(), 1000u);
  EXPECT_EQ(result.standardError, "done\n");
}

TEST(ProcessTest, OverrunningChildIsTerminatedThenKilledAndAlwaysReaped) {
  ProcessDeadlines deadlines{200ms, 200ms, 500ms};
  auto polite = runProcess(shell("sleep 30"), deadlines);
  EXPECT_TRUE(polite.timedOut);
  EXPECT_EQ(polite.exit.signal, SIGTERM);

  auto stubborn = runProcess(shell("trap '' TERM; while :; do sleep 0.05; done"), deadlines);
  EXPECT_TRUE(stubborn.timedOut);
  EXPECT_EQ(stubborn.exit.signal, SIGKILL);
  // Nothing is left to reap: every child was waited for.
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(ProcessTest, GrandchildHoldingThePipesDoesNotHoldTheCaller) {
  // The child exits at once; its background grandchild keeps stdout open for 30 s.
  ProcessRequest request = shell("echo started; (sleep 30 &) ; exit 0");
  request.ownProcessGroup = false;
  ProcessDeadlines deadlines{5s, 1s, 300ms};
  auto result = runProcess(request, deadlines);
  EXPECT_TRUE(result.exit.succeeded());
  EXPECT_TRUE(result.readersTimedOut);
  EXPECT_EQ(result.standardOutput, "started\n");
}

TEST(ProcessTest, KillReachesTheWholeProcessGroup) {
  auto child = ChildProcess::spawn(shell("sleep 30 & echo $!; wait"));
  std::string output;
  for (int i = 0; i < 200 && output.find('\n') == std::string::npos; ++i) {
    std::this_thread::sleep_for(10ms);
    output = child.standardOutput();
  }
  const pid_t grandchild = std::stoi(output);
  ASSERT_TRUE(processExists(grandchild));
  child.kill();
  ASSERT_TRUE(child.waitFor(5s));
  for (int i = 0; i < 200 && processExists(grandchild); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_FALSE(processExists(grandchild));
}

TEST(ProcessTest, DroppingARunningChildKillsAndReapsIt) {
  pid_t pid;
  {
    auto child = ChildProcess::spawn(shell("sleep 30"));
    pid = child.pid();
    EXPECT_FALSE(child.waitFor(50ms));
  }
  EXPECT_FALSE(processExists(pid));
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
}

TEST(ProcessTest, MissingExecutableIsAnErrorNamingIt) {
  ProcessRequest request;
  request.executable = "/nonexistent/tool";
  try {
    runProcess(request);
    FAIL();
  } catch (const PosixError& error) {
    EXPECT_EQ(error.errnoValue(), ENOENT);
    EXPECT_EQ(error.path(), "/nonexistent/tool");
  }
}

TEST(ShellQuoteTest, AnyTextSurvivesTheShellUnchanged) {
  for (const std::string text :
       {"plain", "with space", "it's", "''", "\"double\"", "back\\slash", "line\nbreak", "$(touch /tmp/pwned)", "`id`",
        "*?[a]", "中文 名字.app", "-n", "", "tab\there", "semi;colon&amp|pipe"}) {
    auto result = runProcess(shell("printf '%s' " + shellQuote(text)));
    EXPECT_TRUE(result.exit.succeeded()) << text;
    EXPECT_EQ(result.standardOutput, text);
  }
}

}  // namespace
}  // namespace corvane::platform
