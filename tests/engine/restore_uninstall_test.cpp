// Restoring a kept version of a migrated application and uninstalling one, on real folders:
// what changes, and what must survive a bad version, a failed restore or a tampered record.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "catalogue/app_bundle_metadata.h"
#include "catalogue/app_manager.h"
#include "engine/migration_manager.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/file_system.h"
#include "support/localization.h"
#include "support/uuid.h"

namespace corvane {
namespace {

void makeBundle(const std::string& path, const std::string& version) {
  writeFile(path + "/Contents/MacOS/Tool", "#!/bin/sh\necho " + version + "\n", 0755);
  writeFile(path + "/Contents/Info.plist",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
            "<key>CFBundleShortVersionString</key><string>" + version + "</string></dict></plist>\n");
}

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(directory.c_str())) {
    while (dirent* item = readdir(dir)) {
      if (std::string(item->d_name) != "." && std::string(item->d_name) != "..") names.push_back(item->d_name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  return names;
}

class ItemOperationsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    disk_ = root_.child("disk");
    target_ = disk_ + "/Applications/Tool.app";
    version_ = disk_ + "/Applications/Tool_backup_20240101_120000.app";
    original_ = root_.child("Applications/Tool.app");
    makeBundle(target_, "2.0");
    makeBundle(version_, "1.0");
    makeDirectories(root_.child("Applications"));
    ASSERT_EQ(symlink(target_.c_str(), original_.c_str()), 0);
    MigratedApp app;
    app.id = makeUuidString();
    app.appName = "Tool.app";
    app.originalPath = original_;
    app.targetPath = target_;
    app.itemType = MigratedItemType::application;
    app.migratedDate = ReferenceDate::now();
    AppManager::writeMigratedApps({app}, AppManager::getMigratedAppsFilePath(disk_));
    app_ = AppManager::loadRecords(disk_).at(0);
    ASSERT_EQ(app_.backupVersions.size(), 1u);
  }

  enum class Operation { restore, uninstall };
  // Runs a restore of the kept version or an uninstall and returns its outcome.
  MigrationManager::OperationResult operate(Operation operation, const std::function<void()>& beforeCommit = {}) {
    MigrationManager::Hooks hooks;
    hooks.beforeCommit = beforeCommit;
    MigrationManager manager(queue_, apps_, hooks);
    std::optional<MigrationManager::OperationResult> result;
    auto done = [&](const auto& outcome) { result = outcome; };
    if (operation == Operation::restore) {
      manager.restoreFromBackup(app_.backupVersions.at(0), app_, disk_, done);
    } else {
      manager.uninstallApp(app_, {disk_}, done);
    }
    EXPECT_TRUE(queue_.runUntil([&] { return result.has_value(); }, std::chrono::seconds(30)));
    log_ = manager.logText();
    return result.value_or(MigrationManager::OperationResult{});
  }

  TemporaryDirectory root_;
  std::string disk_, target_, version_, original_, log_;
  MigratedApp app_;
  MainQueue queue_;
  AppManager apps_{queue_};
};

TEST_F(ItemOperationsTest, RestoringPutsTheVersionInPlaceAndKeepsTheCurrentOne) {
  ASSERT_EQ(operate(Operation::restore).kind, MigrationManager::OperationResult::Kind::succeeded) << log_;
  EXPECT_EQ(AppBundleMetadata::version(target_), "1.0");
  EXPECT_FALSE(MigrationEntry::read(version_, AT_FDCWD));
  const auto names = namesIn(disk_ + "/Applications");
  ASSERT_EQ(names.size(), 2u);
  const std::string kept = disk_ + "/Applications/" + (names[0] == "Tool.app" ? names[1] : names[0]);
  EXPECT_EQ(kept.find("Tool_backup_"), disk_.size() + 14);
  EXPECT_EQ(AppBundleMetadata::version(kept), "2.0");
  EXPECT_NE(log_.find(formatLocalizedText(localized("log.restore_complete_versions"), {"2.0", "1.0"})), std::string::npos)
      << log_;
  const auto records = AppManager::loadRecords(disk_);
  ASSERT_EQ(records.size(), 1u);
  bool listed = false;
  for (const auto& backup : records[0].backupVersions) listed |= backup.backupPath == kept && backup.exists;
  EXPECT_TRUE(listed) << "the record lists the kept version, which exists";
  EXPECT_EQ(MigrationEntry::read(original_, AT_FDCWD).value().kind, MigrationEntry::Kind::symbolicLink);
}

TEST_F(ItemOperationsTest, VersionWithoutExecutablesChangesNothingAndAFailedRestorePutsTheCurrentOneBack) {
  removeTreeForcefully(version_ + "/Contents/MacOS");
  const auto before = namesIn(disk_ + "/Applications");
  EXPECT_EQ(operate(Operation::restore).kind, MigrationManager::OperationResult::Kind::failed);
  EXPECT_NE(log_.find(localized("log.restore_incomplete")), std::string::npos) << log_;
  EXPECT_EQ(namesIn(disk_ + "/Applications"), before);
  EXPECT_EQ(AppBundleMetadata::version(target_), "2.0");
  EXPECT_EQ(AppManager::loadRecords(disk_).at(0), app_);
  // A failed restore puts the current version back: the chosen version vanishes at the last
  // moment, so moving it into place fails.
  makeBundle(version_, "1.0");
  const auto result = operate(Operation::restore, [&] { platform::renameExclusive(version_, root_.child("moved-away.app")); });
  EXPECT_EQ(result.kind, MigrationManager::OperationResult::Kind::failed);
  EXPECT_NE(log_.find(localized("log.restore_rollback_success")), std::string::npos) << log_;
  EXPECT_EQ(AppBundleMetadata::version(target_), "2.0");
  EXPECT_EQ(namesIn(disk_ + "/Applications"), std::vector<std::string>{"Tool.app"}) << "no kept copy stays behind";
}

TEST_F(ItemOperationsTest, UninstallLeavesARealBundleAndRemovesCopySupportFilesAndRecord) {
  // The user reinstalled the application at its original location.
  ASSERT_EQ(unlink(original_.c_str()), 0);
  makeBundle(original_, "3.0");
  const std::string support = root_.child("home/Library/Application Support/Tool");
  writeFile(support + "/settings.json", "{}");
  app_.supportFiles = {support};
  EXPECT_EQ(operate(Operation::uninstall).kind, MigrationManager::OperationResult::Kind::succeeded) << log_;
  EXPECT_EQ(AppBundleMetadata::version(original_), "3.0");
  EXPECT_NE(log_.find(formatLocalizedText(localized("log.uninstall_real_file_skip"), {original_})), std::string::npos);
  EXPECT_FALSE(MigrationEntry::read(target_, AT_FDCWD));
  EXPECT_FALSE(MigrationEntry::read(support, AT_FDCWD));
  EXPECT_TRUE(MigrationEntry::read(version_, AT_FDCWD)) << "retained versions are not the item";
  EXPECT_TRUE(AppManager::loadRecords(disk_).empty());
}

TEST_F(ItemOperationsTest, UninstallNeverDeletesOutsideTheDiskAndReportsItAtTheEnd) {
  // A tampered record that names a folder outside the disk as the item's copy.
  const std::string outsider = root_.child("precious");
  writeFile(outsider + "/data.txt", "keep");
  app_.targetPath = outsider;
  EXPECT_EQ(operate(Operation::uninstall).kind, MigrationManager::OperationResult::Kind::failed);
  EXPECT_EQ(readFile(outsider + "/data.txt"), "keep");
  EXPECT_NE(log_.find(localized("log.uninstall_complete_with_errors")), std::string::npos);
  EXPECT_NE(log_.find(localized("log.uninstall_record_deleted")), std::string::npos);
}

}  // namespace
}  // namespace corvane
