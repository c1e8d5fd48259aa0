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

TEST(DebugLoggerTest, WithoutAFileLinesGoToTheDiagnosticLogAndAnUnwritableFileIsReportedOnce) {
  LogFileReset reset;
  TemporaryDirectory dir;
  CapturedDiagnosticLog log;
  ASSERT_FALSE(DebugLogger::shared().logFile());
  DebugLogger::shared().log("准备清理幽灵目录: /Volumes/Ghost");
  EXPECT_EQ(log.count("debug: 准备清理幽灵目录: /Volumes/Ghost"), 1) << log.text();
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));

  DebugLogger::shared().setLogFile(dir.child("missing-directory/debug.log"));
  DebugLogger::shared().log("first");
  DebugLogger::shared().log("second");
  EXPECT_EQ(log.count("can't be written"), 1) << log.text();
  EXPECT_EQ(log.count("second"), 1) << "the caller goes on";
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
  ASSERT_TRUE(text.ends_with('\n')) << "last line is unterminated";
  int lines = 0;
  for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1, ++lines) {
    const std::string line = text.substr(start, end - start);
    EXPECT_TRUE(line.starts_with('[') && line.find("] thread ") != std::string::npos) << line;
  }
  EXPECT_EQ(lines, 200);
}

}  // namespace
}  // namespace corvane
