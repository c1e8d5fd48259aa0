#include <gtest/gtest.h>

#include "platform/process.h"
#include "support/shell_quote.h"

namespace corvane {
namespace {

TEST(ShellQuoteTest, AnyTextSurvivesTheShellUnchanged) {
  const std::vector<std::string> hostile = {
      "plain", "with space", "it's", "''", "\"double\"", "back\\slash", "line\nbreak", "$(touch /tmp/pwned)",
      "`id`", "*?[a]", "中文 名字.app", "-n", "", "tab\there", "semi;colon&amp|pipe"};
  for (const auto& text : hostile) {
    platform::ProcessRequest request;
    request.executable = "/bin/sh";
    request.arguments = {"-c", "printf '%s' " + shellQuote(text)};
    auto result = platform::runProcess(request);
    EXPECT_TRUE(result.exit.succeeded()) << text;
    EXPECT_EQ(result.standardOutput, text);
  }
  EXPECT_EQ(shellQuote("it's"), "'it'\\''s'");
}

}  // namespace
}  // namespace corvane
