#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "engine/progress/migration_batch_progress.h"
#include "engine/progress/migration_progress_tracker.h"
#include "fixtures/sample_tree.h"
#include "support/strings_table.h"

namespace corvane {
namespace {

using Phase = MigrationItemProgress::Phase;

MigrationProgressTracker makeTracker() {
  MigrationItemProgress a, b;
  a.name = "a";
  b.name = "b";
  return MigrationProgressTracker({b, a});
}

MigrationCopyWorkload workload(std::int64_t bytes, std::int64_t entries) {
  MigrationCopyWorkload result;
  result.bytes = bytes;
  result.entries = entries;
  return result;
}

TEST(ProgressTrackerTest, CountersNeverMoveBackwardsOrPassTheirTotalsAndRatesOnlyCountCopying) {
  auto tracker = makeTracker();
  tracker.plan("a", workload(1000, 10));
  tracker.copied("a", 600, 4, "x");
  tracker.copied("a", 300, 2, "late report");
  auto item = tracker.current()[1];
  EXPECT_EQ(item.copiedBytes, 600);
  EXPECT_EQ(item.copiedEntries, 4);
  EXPECT_EQ(item.path, "late report");
  tracker.copied("a", 5000, 50, "y");
  tracker.verified("a", 2000, 99, "z");
  item = tracker.current()[1];
  EXPECT_EQ(item.copiedBytes, 1000);
  EXPECT_EQ(item.copiedEntries, 10);
  EXPECT_EQ(item.verifiedBytes, 1000);
  EXPECT_EQ(item.verificationBytes, 1000);
  EXPECT_EQ(item.verifiedEntries, 10);
  // Scanning counts entries; reports about unknown items are ignored.
  tracker.scanned("b", "one");
  tracker.scanned("b", "two");
  tracker.scanned("nobody", "x");
  tracker.copied("nobody", 1, 1, "x");
  auto items = tracker.current();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].name, "b") << "batch order, not name order";
  EXPECT_EQ(items[0].phase, Phase::scanning);
  EXPECT_EQ(items[0].scannedEntries, 2);
  EXPECT_EQ(items[0].path, "two");
  EXPECT_EQ(items[1].scannedEntries, 0);
  // The rate is measured only while a measurable item copies.
  tracker.plan("b", workload(1 << 30, 10));
  tracker.setMeasurable("b", true);
  tracker.setPhase("b", Phase::copying);
  tracker.copied("b", 100, 1, "");
  EXPECT_EQ(tracker.sample(10.0)[0].bytesPerSecond, 0);  // first sample
  tracker.copied("b", 1100, 1, "");
  EXPECT_DOUBLE_EQ(tracker.sample(10.5)[0].bytesPerSecond, 2000);
  tracker.setPhase("b", Phase::verifying);
  tracker.copied("b", 2100, 1, "");
  EXPECT_EQ(tracker.sample(11.0)[0].bytesPerSecond, 0);
  tracker.setPhase("b", Phase::copying);
  tracker.setMeasurable("b", false);
  tracker.copied("b", 3100, 1, "");
  EXPECT_EQ(tracker.sample(11.5)[0].bytesPerSecond, 0);
  tracker.setMeasurable("b", true);
  EXPECT_EQ(tracker.sample(11.5)[0].bytesPerSecond, 0);  // no time has passed
}

TEST(ProgressTrackerTest, ClockDeliversSamplesUntilStoppedWhileWorkersReport) {
  auto tracker = makeTracker();
  tracker.plan("a", workload(1'000'000, 1'000'000));
  std::atomic<int> samples{0};
  std::atomic<bool> sawBackwards{false};
  std::int64_t last = 0;
  tracker.start([&](std::vector<MigrationItemProgress> items) {
    if (items[1].copiedBytes < last) sawBackwards = true;
    last = items[1].copiedBytes;
    ++samples;
  });
  std::vector<std::thread> workers;
  for (int w = 0; w < 4; ++w) {
    workers.emplace_back([&, w] {
      for (int i = 0; i < 20000; ++i) tracker.copied("a", (i * 4 + w) * 10, i, "p");
    });
  }
  for (auto& worker : workers) worker.join();
  while (samples < 2) std::this_thread::yield();
  tracker.stop();
  const int stoppedAt = samples;
  std::this_thread::sleep_for(MigrationProgressTracker::kInterval * 2);
  EXPECT_EQ(samples, stoppedAt);
  EXPECT_FALSE(sawBackwards);
}

TEST(BatchProgressTest, FirstOutcomeWinsAndOutOfRangeReportsAreDropped) {
  MigrationBatchProgress batch(3, 1);
  EXPECT_TRUE(batch.finish(0, MigrationBatchProgress::Outcome::succeeded));
  EXPECT_FALSE(batch.finish(0, MigrationBatchProgress::Outcome::failed));
  EXPECT_FALSE(batch.finish(3, MigrationBatchProgress::Outcome::failed));
  EXPECT_FALSE(batch.finish(-1, MigrationBatchProgress::Outcome::failed));
  EXPECT_TRUE(batch.finish(2, MigrationBatchProgress::Outcome::failed));
  MigrationBatchProgress::Snapshot expected{1, 1, 1, 3};
  EXPECT_EQ(batch.snapshot(), expected);
  MigrationBatchProgress::Snapshot published;
  batch.publish([&](MigrationBatchProgress::Snapshot snapshot) { published = snapshot; });
  EXPECT_EQ(published, expected);
  EXPECT_EQ(MigrationBatchProgress(-4).snapshot().total, 0);
}

// Each phase is shown through a key made from its name, so each needs a text in every language.
TEST(ItemProgressTest, EveryPhaseHasATextInEveryLanguage) {
  for (const char* language : {"en", "zh-Hans", "zh-Hant"}) {
    const auto table = StringsTable::parse(
        readFile(std::string(CORVANE_TEST_SOURCE_DIR) + "/resources/" + language + ".lproj/Localizable.strings"));
    for (int i = 0; i <= static_cast<int>(Phase::skipped); ++i) {
      const std::string key = "progress.phase." + std::string(phaseName(static_cast<Phase>(i)));
      EXPECT_TRUE(table.text(key)) << language << ": " << key;
    }
  }
}

}  // namespace
}  // namespace corvane
