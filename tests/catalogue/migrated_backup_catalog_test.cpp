#include "catalogue/migrated_backup_catalog.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <set>

#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "support/localization_test_support.h"
#include "support/uuid.h"

namespace corvane {
namespace {

// Runs one test in a given time zone, since backup names carry local time.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const std::string& zone) : variable_(std::in_place, "TZ", zone) { ::tzset(); }
  ~ScopedTimeZone() {
    variable_.reset();  // the zone in force before comes back only once TZ is restored
    ::tzset();
  }

 private:
  std::optional<ScopedEnvironment> variable_;
};

double unixSecondsOf(std::string_view timestamp) {
  const auto date = MigratedBackupCatalog::parseTimestamp(timestamp);
  EXPECT_TRUE(date.has_value()) << timestamp;
  return date ? date->unixSeconds() : 0;
}

TEST(MigratedBackupCatalogTest, TimestampsAreLocalTimeAndMustFormatBackToThemselves) {
  {
    ScopedTimeZone utc("UTC");
    EXPECT_EQ(MigratedBackupCatalog::formatTimestamp(ReferenceDate::fromUnixSeconds(1704099600.75)), "20240101_090000");
    ScopedTimeZone tokyo("Asia/Tokyo");
    EXPECT_DOUBLE_EQ(unixSecondsOf("20240101_090000"), 1704099600.0 - 9 * 3600);  // the same name, another moment
  }
  ScopedTimeZone zone("America/New_York");
  EXPECT_DOUBLE_EQ(unixSecondsOf("20240131_235959"), 1706763599.0);  // 2024-02-01 04:59:59 UTC
  EXPECT_DOUBLE_EQ(unixSecondsOf("20240701_120000"), 1719849600.0);  // summer time, UTC-4
  EXPECT_DOUBLE_EQ(unixSecondsOf("20240229_000000"), 1709182800.0);  // a leap day
  for (const std::string bad :
       {"20240230_101010", "20240101_240000", "20240310_023000" /* skipped by the clock change */, "2024013_235959",
        "20240131_2359590", "+0240131_235959"}) {
    EXPECT_FALSE(MigratedBackupCatalog::parseTimestamp(bad).has_value()) << bad;
  }
  const auto date = MigratedBackupCatalog::parseTimestamp("20241103_013000");  // occurs twice that night
  ASSERT_TRUE(date.has_value());
  EXPECT_EQ(MigratedBackupCatalog::formatTimestamp(*date), "20241103_013000");
}

TEST(MigratedBackupCatalogTest, BackupNamesBelongToTheirTargetOnly) {
  ScopedTimeZone zone("UTC");
  const auto dir = MigratedItemType::directory;
  const auto app = MigratedItemType::application;
  EXPECT_TRUE(
      MigratedBackupCatalog::backupDate("/D/Directories/a/Foo_backup_20240131_235959", "/D/Directories/a/Foo", dir));
  EXPECT_TRUE(MigratedBackupCatalog::backupDate("/D/Directories/a/./b/../Foo_backup_20240131_235959/",
                                                "/D/Directories/a/Foo", dir));
  EXPECT_FALSE(
      MigratedBackupCatalog::backupDate("/D/Directories/b/Foo_backup_20240131_235959", "/D/Directories/a/Foo", dir));
  EXPECT_FALSE(
      MigratedBackupCatalog::backupDate("/D/Directories/a/FooBar_backup_20240131_235959", "/D/Directories/a/Foo", dir));
  EXPECT_FALSE(
      MigratedBackupCatalog::backupDate("/D/Directories/a/Foo_backup_20240131_235959_2", "/D/Directories/a/Foo", dir));
  EXPECT_TRUE(MigratedBackupCatalog::backupDate("/D/Applications/Foo_backup_20240101_120000.APP",
                                                "/D/Applications/Foo.app", app));
  EXPECT_FALSE(
      MigratedBackupCatalog::backupDate("/D/Applications/Foo_backup_20240101_120000", "/D/Applications/Foo.app", app));
  EXPECT_EQ(
      MigratedBackupCatalog::backupPathFor("/D/Applications/Foo.app/", app, ReferenceDate::fromUnixSeconds(1704110400)),
      "/D/Applications/Foo_backup_20240101_120000.app");
  EXPECT_EQ(
      MigratedBackupCatalog::backupPathFor("/D/Directories/a/Foo", dir, ReferenceDate::fromUnixSeconds(1704110400)),
      "/D/Directories/a/Foo_backup_20240101_120000");
}

class BackupReconciliationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    makeDirectories(disk_.child("Applications/Foo.app/Contents/MacOS"));
    app_.id = makeUuidString();
    app_.appName = "Foo.app";
    app_.originalPath = "/Applications/Foo.app";
    app_.targetPath = disk_.child("Applications/Foo.app");
    app_.itemType = MigratedItemType::application;
    app_.migratedDate = ReferenceDate::fromUnixSeconds(1700000000);
  }
  std::string backup(const std::string& name) {
    makeDirectories(disk_.child("Applications/" + name + "/Contents"));
    return disk_.child("Applications/" + name);
  }

  ScopedTimeZone zone_{"UTC"};
  TemporaryDirectory disk_;
  MigratedApp app_;
};

TEST_F(BackupReconciliationTest, DuplicatesCollapseVanishedCopiesStayAndUnlistedCopiesAreAdopted) {
  const std::string listed = backup("Foo_backup_20240101_120000.app");
  const std::string unlisted = backup("Foo_backup_20240301_080000.APP");
  backup("Bar_backup_20240101_120000.app");                              // another item's copy
  makeDirectories(disk_.child("Other/Foo_backup_20240401_000000.app"));  // not beside the target
  const std::string vanished = disk_.child("Applications/Foo_backup_20231224_180000.app");

  const BackupRecord first{makeUuidString(), listed + "/", ReferenceDate::fromUnixSeconds(1), false};
  const BackupRecord sameThroughDots{makeUuidString(), disk_.child("Applications/x/../Foo_backup_20240101_120000.app"),
                                     ReferenceDate::fromUnixSeconds(2), true};
  const BackupRecord gone{makeUuidString(), vanished, ReferenceDate::fromUnixSeconds(1703440800), true};
  app_.backupVersions = {first, sameThroughDots, gone};

  const auto backups = MigratedBackupCatalog::reconciledRecords(app_);
  ASSERT_EQ(backups.size(), 3u);
  // Newest first: the adopted copy (March 2024), the vanished one (December 2023), then the
  // first of the two duplicates, which keeps its own id and date.
  EXPECT_EQ(backups[0].backupPath, unlisted);
  EXPECT_TRUE(backups[0].exists);
  EXPECT_TRUE(isUuidString(backups[0].id));
  EXPECT_DOUBLE_EQ(backups[0].backupDate.unixSeconds(), 1709280000.0);
  EXPECT_EQ(backups[1].id, gone.id);
  EXPECT_FALSE(backups[1].exists);
  EXPECT_EQ(backups[2].id, first.id);
  EXPECT_EQ(backups[2].backupPath, listed);
  EXPECT_EQ(backups[2].backupDate, first.backupDate);
  EXPECT_TRUE(backups[2].exists);

  // A second pass finds nothing to change.
  app_.backupVersions = backups;
  EXPECT_FALSE(MigratedBackupCatalog::differs(MigratedBackupCatalog::reconciledRecords(app_), backups));
}

TEST_F(BackupReconciliationTest, EqualDatesAreOrderedLikeTheFileBrowser) {
  const ReferenceDate same = ReferenceDate::fromUnixSeconds(1704110400);
  app_.backupVersions = {{makeUuidString(), "/x/copy 10", same, false},
                         {makeUuidString(), "/x/Copy 9", same, false},
                         {makeUuidString(), "/x/copy 2", same, false},
                         {makeUuidString(), "/x/newer", ReferenceDate::fromUnixSeconds(1704110401), false}};
  const auto backups = MigratedBackupCatalog::reconciledRecords(app_);
  ASSERT_EQ(backups.size(), 4u);
  EXPECT_EQ(backups[0].backupPath, "/x/newer");
  EXPECT_EQ(backups[1].backupPath, "/x/copy 2");
  EXPECT_EQ(backups[2].backupPath, "/x/Copy 9");
  EXPECT_EQ(backups[3].backupPath, "/x/copy 10");
}

TEST_F(BackupReconciliationTest, MergingKeepsTheExistingIdentityAndAccumulatesBothLists) {
  MigratedApp existing = app_;
  existing.backupVersions = {
      {makeUuidString(), backup("Foo_backup_20230101_000000.app"), ReferenceDate::fromUnixSeconds(1672531200), true}};
  MigratedApp fresh = app_;
  fresh.id = makeUuidString();
  fresh.appName = "Foo 2.app";
  fresh.migratedDate = ReferenceDate::fromUnixSeconds(1710000000);
  fresh.supportFiles = {"/Users/a/Library/Foo"};
  fresh.backupVersions = {
      {makeUuidString(), existing.backupVersions[0].backupPath + "/.", ReferenceDate::fromUnixSeconds(5), true}};

  const std::string justMade = backup("Foo_backup_20240309_160000.app");
  const auto merged = MigratedBackupCatalog::appByMerging(fresh, existing, justMade);
  EXPECT_EQ(merged.id, existing.id);
  EXPECT_EQ(merged.appName, "Foo 2.app");
  EXPECT_EQ(merged.migratedDate, fresh.migratedDate);
  EXPECT_EQ(merged.supportFiles, fresh.supportFiles);
  ASSERT_EQ(merged.backupVersions.size(), 2u);
  EXPECT_EQ(merged.backupVersions[0].backupPath, justMade);
  EXPECT_DOUBLE_EQ(merged.backupVersions[0].backupDate.unixSeconds(), 1710000000.0);
  EXPECT_EQ(merged.backupVersions[1].id, existing.backupVersions[0].id);

  // A copy whose name carries no date takes the existing record's migration date; without an
  // existing record, the new one's.
  const std::string undated = backup("Foo old.app");
  const auto withUndated = MigratedBackupCatalog::appByMerging(fresh, existing, undated);
  const auto found = std::find_if(withUndated.backupVersions.begin(), withUndated.backupVersions.end(),
                                  [&](const BackupRecord& record) { return record.backupPath == undated; });
  ASSERT_NE(found, withUndated.backupVersions.end());
  EXPECT_EQ(found->backupDate, existing.migratedDate);
  const auto alone = MigratedBackupCatalog::appByMerging(fresh, std::nullopt, disk_.child("Applications/missing.app"));
  EXPECT_EQ(alone.id, fresh.id);
  ASSERT_EQ(alone.backupVersions.size(), 2u);
  EXPECT_EQ(alone.backupVersions[0].backupDate, fresh.migratedDate);
  EXPECT_FALSE(alone.backupVersions[0].exists);
}

}  // namespace
}  // namespace corvane
