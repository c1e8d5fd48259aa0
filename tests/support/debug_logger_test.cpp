#include "support/debug_logger.h"

#include <gtest/gtest.h>

#include <thread>

#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "support/diagnostic_log.h"
#include "support/localization_test_support.h"

namespace corvane {
namespace {

TEST(DebugLoggerTest, AFileCollectsWholeLinesFromEveryThreadAndAnUnwritableOneIsReportedOnce) {
  struct Reset {
    ~Reset() { DebugLogger::shared().setLogFile(std::nullopt); }
  } reset;
  TemporaryDirectory dir;
  DebugLogger::shared().setLogFile(dir.child("debug.log"));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 50; ++i) DebugLogger::shared().log("line " + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  const std::string text = readFile(dir.child("debug.log"));
  ASSERT_TRUE(text.ends_with('\n')) << "last line is unterminated";
  int lines = 0;
  for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1, ++lines) {
    const std::string line = text.substr(start, end - start);
    EXPECT_TRUE(line.starts_with('[') && line.find("] line ") != std::string::npos) << line;
  }
  EXPECT_EQ(lines, 200);

  CapturedDiagnosticLog log;
  DebugLogger::shared().setLogFile(dir.child("missing-directory/debug.log"));
  DebugLogger::shared().log("first");
  DebugLogger::shared().log("second");
  EXPECT_EQ(log.count("can't be written"), 1) << log.text();
  // Without --verbose, debug lines are filtered out and warnings still shown.
  setDiagnosticVerbosity(LogLevel::warning);
  logDebug("hidden detail");
  logWarning("shown warning");
  EXPECT_EQ(log.count("hidden detail"), 0);
  EXPECT_EQ(log.count("shown warning"), 1);
}

}  // namespace
}  // namespace corvane
