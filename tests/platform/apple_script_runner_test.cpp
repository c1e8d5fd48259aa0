#include "platform/apple_script_runner.h"

#include <gtest/gtest.h>

namespace corvane::platform {
namespace {

// osascript's complaints as it prints them, read into what a script error carries.
TEST(AppleScriptRunnerTest, OsascriptsComplaintGivesTheErrorNumberAndMessage) {
  const auto cancelled = interpretOsascriptResult({1, 0}, "0:77: execution error: User canceled. (-128)\n");
  EXPECT_FALSE(cancelled.succeeded);
  EXPECT_TRUE(cancelled.compiled);
  EXPECT_EQ(cancelled.errorNumber, -128);
  EXPECT_EQ(cancelled.message, "User canceled.");

  const auto failed = interpretOsascriptResult({1, 0}, "0:95: execution error: cp: /x (y): Permission denied (1)");
  EXPECT_EQ(failed.errorNumber, 1);
  EXPECT_EQ(failed.message, "cp: /x (y): Permission denied");

  const auto syntax = interpretOsascriptResult({1, 0}, "0:5: syntax error: Expected end of line. (-2741)");
  EXPECT_FALSE(syntax.compiled);
  EXPECT_EQ(syntax.errorNumber, -2741);

  const auto killed = interpretOsascriptResult({-1, 9}, "");
  EXPECT_FALSE(killed.succeeded);
  EXPECT_EQ(killed.errorNumber, -1);
  EXPECT_EQ(killed.message, "");

  EXPECT_TRUE(interpretOsascriptResult({0, 0}, "").succeeded);
}

}  // namespace
}  // namespace corvane::platform
