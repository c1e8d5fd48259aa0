#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "support/debug_logger.h"
#include "support/localization_test_support.h"

namespace corvane {
namespace {

// Restores the shared logger's file for the next test.
struct LogFileReset {
  ~LogFileReset() { DebugLogger::shared().setLogFile(std::nullopt); }
};

TEST(DebugLoggerTest, WithoutAFileLinesGoOnlyToTheDiagnosticLog) {
  LogFileReset reset;
  TemporaryDirectory dir;
  CapturedDiagnosticLog log;
  ASSERT_FALSE(DebugLogger::shared().logFile());
  DebugLogger::shared().log("准备清理幽灵目录: /Volumes/Ghost");
  EXPECT_EQ(log.count("debug: 准备清理幽灵目录: /Volumes/Ghost"), 1) << log.text();
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST(DebugLoggerTest, AFileCollectsWholeLinesFromEveryThread) {
  LogFileReset reset;
  TemporaryDirectory dir;
  const std::string path = dir.child("debug.log");
  DebugLogger::shared().setLogFile(path);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 50; ++i) DebugLogger::shared().log("thread " + std::to_string(t) + " line " + std::to_string(i));
    });
  }
  for (auto& thread : threads) thread.join();
  const std::string text = readFile(path);
  int lines = 0;
  for (std::size_t start = 0; start < text.size();) {
    const auto end = text.find('\n', start);
    ASSERT_NE(end, std::string::npos) << "last line is unterminated";
    const std::string line = text.substr(start, end - start);
    EXPECT_EQ(line.front(), '[') << line;
    EXPECT_NE(line.find("] thread "), std::string::npos) << line;
    ++lines;
    start = end + 1;
  }
  EXPECT_EQ(lines, 200);
}

TEST(DebugLoggerTest, AnUnwritableFileIsReportedOnceAndNeverStopsTheCaller) {
  LogFileReset reset;
  TemporaryDirectory dir;
  CapturedDiagnosticLog log;
  DebugLogger::shared().setLogFile(dir.child("missing-directory/debug.log"));
  DebugLogger::shared().log("first");
  DebugLogger::shared().log("second");
  EXPECT_EQ(log.count("can't be written"), 1) << log.text();
  EXPECT_EQ(log.count("second"), 1);
}

}  // namespace
}  // namespace corvane
