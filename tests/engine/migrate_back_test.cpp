#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>

#include "catalogue/app_manager.h"
#include "catalogue/migrated_apps_file.h"
#include "engine/migration_integrity_verifier.h"
#include "engine/migration_manager.h"
#include "fixtures/sample_tree.h"
#include "fixtures/test_volume.h"
#include "platform/file_system.h"
#include "platform/volume.h"
#include "support/localization.h"
#include "support/paths.h"
#include "support/update_activity.h"

namespace corvane {
namespace {

class NeverAsked final : public MigrationPreflightPrompter {
 public:
  MigrationPreflightChoice choose(const std::vector<MigrationRuntimeBlocker>&) override {
    return MigrationPreflightChoice::later;
  }
  bool authorize(const std::string&) override { return false; }
  void alert(const std::string&, const std::string&) override {}
};

// Everything that makes an item what it is, entry by entry; inode numbers and change times
// are left out since a copy cannot keep them. Hard links appear as the group of paths that
// share one object.
std::map<std::string, std::string> fullManifest(const std::string& root) {
  const auto manifest =
      MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
  std::map<std::uint64_t, std::vector<std::string>> groups;
  std::map<std::string, std::string> result;
  for (const auto& [relative, entry] : manifest) {
    const std::string path = relative.empty() ? root : root + "/" + relative;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) throw std::runtime_error("lstat " + path);
    std::string text = std::string(kindName(entry.kind)) + " mode " + std::to_string(status.st_mode) + " owner " +
                       std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid) + " size " +
                       std::to_string(status.st_size) + " mtime " + std::to_string(status.st_mtim.tv_sec) + "." +
                       std::to_string(status.st_mtim.tv_nsec) + " links " + std::to_string(status.st_nlink);
    if (entry.kind == MigrationEntry::Kind::regular) text += " data " + readFile(path);
    if (entry.link) text += " -> " + *entry.link;
    if (entry.kind == MigrationEntry::Kind::regular || entry.kind == MigrationEntry::Kind::directory) {
      for (const auto& name : platform::listExtendedAttributes(path)) {
        text += " xattr " + name + "=" + platform::readExtendedAttribute(path, name);
      }
      text += platform::hasExtendedAccessControlList(path) ? " acl" : "";
    }
    if (entry.kind == MigrationEntry::Kind::regular && status.st_nlink > 1) groups[status.st_ino].push_back(relative);
    result[relative] = text;
  }
  for (const auto& [inode, paths] : groups) {
    std::string group;
    for (const auto& path : paths) group += path + " ";
    for (const auto& path : paths) result[path] += " group " + group;
  }
  return result;
}

bool hasStagingLeft(const std::string& directory) {
  bool found = false;
  if (DIR* dir = opendir(directory.c_str())) {
    while (dirent* item = readdir(dir)) found |= std::string(item->d_name).rfind(".corvane-", 0) == 0;
    closedir(dir);
  }
  return found;
}

class MigrateBackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      internal_ = TestVolume::create(VolumeKind::ext4);
      external_ = TestVolume::create(VolumeKind::ext4);
    } catch (const VolumeUnavailable& unavailable) {
      GTEST_SKIP() << "needs two ext4 volumes: " << unavailable.what();
    }
    item_ = internal_->child("home/me/Project");
    buildSampleTree(item_, {.fifo = true, .extendedAttributes = true, .accessControlList = true});
    writeFile(internal_->child("home/me/outside.txt"), "outside");
    chown((item_ + "/Contents/Info.plist").c_str(), 1234, 5678);
    disk_ = external_->mountPoint();
  }

  MigrationManager::Hooks hooks() {
    MigrationManager::Hooks result;
    result.prompter = &prompter_;
    result.checkUsage = [this](const std::string& source, const MigrationManifest& manifest) {
      if (duringCheck_) duringCheck_(source, manifest);
    };
    return result;
  }

  // Migrates the item and returns its record.
  MigratedApp migrate() {
    MigrationManager manager(queue_, apps_, hooks());
    EXPECT_TRUE(manager.migrateApps({item_}, disk_));
    EXPECT_TRUE(queue_.runUntil([&] { return !manager.isMigrating(); }, std::chrono::minutes(2)));
    const auto records = AppManager::loadRecords(disk_);
    if (records.size() != 1) throw std::runtime_error("the migration left no record");
    return records.front();
  }

  MigrationManager::OperationResult moveBack(const MigratedApp& app) {
    MigrationManager manager(queue_, apps_, hooks());
    std::optional<MigrationManager::OperationResult> result;
    manager.migrateBackToMainDisk(app, disk_, [&](const MigrationManager::OperationResult& outcome) { result = outcome; });
    EXPECT_TRUE(queue_.runUntil([&] { return result.has_value(); }, std::chrono::minutes(2)));
    log_ = manager.logText();
    return result.value_or(MigrationManager::OperationResult{});
  }

  void expectStillMigrated(const MigratedApp& app, const std::map<std::string, std::string>& externalBefore) {
    auto link = MigrationEntry::read(item_, AT_FDCWD);
    ASSERT_TRUE(link);
    EXPECT_EQ(link->kind, MigrationEntry::Kind::symbolicLink);
    EXPECT_EQ(link->link, app.targetPath);
    EXPECT_EQ(fullManifest(app.targetPath), externalBefore);
    const auto records = AppManager::loadRecords(disk_);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records.front().id, app.id);
    EXPECT_FALSE(hasStagingLeft(parentPath(item_)));
  }

  std::unique_ptr<TestVolume> internal_;
  std::unique_ptr<TestVolume> external_;
  std::string item_;
  std::string disk_;
  MainQueue queue_;
  AppManager apps_{queue_};
  NeverAsked prompter_;
  std::function<void(const std::string&, const MigrationManifest&)> duringCheck_;
  std::string log_;
};

TEST_F(MigrateBackTest, RoundTripRestoresEverythingButInodesAndChangeTimes) {
  auto before = fullManifest(item_);
  const auto app = migrate();
  EXPECT_EQ(app.targetPath, disk_ + "/Directories" + item_);
  const auto result = moveBack(app);
  ASSERT_EQ(result.kind, MigrationManager::OperationResult::Kind::succeeded) << result.message << "\n" << log_;

  auto after = fullManifest(item_);
  // A link that climbed out of the item was given the absolute target it named on the way
  // out and keeps it on the way back: it still reaches the same file.
  const std::string climbing = "Contents/Resources/deep/climbs-out";
  ASSERT_TRUE(before.count(climbing));
  EXPECT_EQ(resolvingSymlinksInPath(item_ + "/" + climbing), resolvingSymlinksInPath(internal_->child("home/me/outside.txt")));
  before.erase(climbing);
  after.erase(climbing);
  EXPECT_EQ(after, before);

  EXPECT_FALSE(MigrationEntry::read(app.targetPath, AT_FDCWD)) << "the external copy is removed";
  EXPECT_TRUE(AppManager::loadRecords(disk_).empty());
  EXPECT_FALSE(hasStagingLeft(parentPath(item_)));
  for (const auto* key : {"log.migrate_back_start", "log.migrate_back_swap_success", "log.cleaning_migration_record",
                          "log.migration_record_cleaned", "log.migrate_back_complete"}) {
    EXPECT_NE(log_.find(localized(key)), std::string::npos) << key;
  }
  EXPECT_NE(log_.find(formatLocalizedText(localized("log.target_disk_path"), {disk_})), std::string::npos) << log_;
}

TEST_F(MigrateBackTest, RealFolderAtTheOriginalPathIsNeverReplaced) {
  const auto app = migrate();
  const auto external = fullManifest(app.targetPath);
  ASSERT_EQ(unlink(item_.c_str()), 0);
  makeDirectories(item_);
  writeFile(item_ + "/mine.txt", "the user's own");
  const auto result = moveBack(app);
  EXPECT_EQ(result.kind, MigrationManager::OperationResult::Kind::failed);
  EXPECT_NE(result.message.find(localized("error.migration_restore_conflict")), std::string::npos) << result.message;
  EXPECT_EQ(readFile(item_ + "/mine.txt"), "the user's own");
  EXPECT_EQ(fullManifest(app.targetPath), external);
  // Read the file itself: the catalogue hides a record whose original place holds a real
  // folder, but the record must still be there for when the user sorts the conflict out.
  const auto stored = MigratedAppsFile::read(AppManager::getMigratedAppsFilePath(disk_));
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_EQ(stored.front().id, app.id);
  EXPECT_EQ(log_.find(localized("log.migration_record_cleaned")), std::string::npos);
}

TEST_F(MigrateBackTest, LinkLeadingToAnotherDiskIsRefused) {
  const auto app = migrate();
  const auto external = fullManifest(app.targetPath);
  // The same folder name on a third disk: the link no longer leads to the recorded copy.
  CORVANE_TEST_VOLUME(other, VolumeKind::tmpfs);
  const std::string elsewhere = other->child("Directories" + item_);
  buildSampleTree(elsewhere);
  ASSERT_EQ(unlink(item_.c_str()), 0);
  ASSERT_EQ(symlink(elsewhere.c_str(), item_.c_str()), 0);
  const auto result = moveBack(app);
  EXPECT_EQ(result.kind, MigrationManager::OperationResult::Kind::failed);
  EXPECT_NE(result.message.find(localized("migration.preflight.restore_wrong_target")), std::string::npos) << result.message;
  EXPECT_EQ(MigrationEntry::read(item_, AT_FDCWD)->link, elsewhere);
  EXPECT_EQ(fullManifest(app.targetPath), external);
  EXPECT_EQ(AppManager::loadRecords(disk_).size(), 1u);
}

TEST_F(MigrateBackTest, InternalDiskFillingUpDuringTheCopyLeavesTheItemMigrated) {
  writeFile(item_ + "/big.bin", std::string(24 << 20, 'x'));
  const auto app = migrate();
  const auto external = fullManifest(app.targetPath);
  // Room when the space is checked, none by the time the staged copy is written.
  duringCheck_ = [&](const std::string&, const MigrationManifest&) {
    const std::int64_t free = platform::availableCapacity(internal_->mountPoint());
    const int fd = open(internal_->child("filler").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(posix_fallocate(fd, 0, free - (1 << 20)), 0);
    close(fd);
  };
  const auto result = moveBack(app);
  EXPECT_EQ(result.kind, MigrationManager::OperationResult::Kind::failed) << log_;
  EXPECT_NE(log_.find(formatLocalizedText(localized("log.migrate_back_failed_detailed"), {result.message})),
            std::string::npos);
  expectStillMigrated(app, external);
}

TEST_F(MigrateBackTest, AdmissionRefusesDuringABatchTwiceForOneItemAndDuringAnUpdate) {
  const auto app = migrate();
  const auto external = fullManifest(app.targetPath);

  // While an update installs.
  UpdateActivity::shared().setInstalling(true);
  {
    MigrationManager manager(queue_, apps_, hooks());
    EXPECT_FALSE(manager.migrateBackToMainDisk(app, disk_));
    UpdateActivity::shared().setInstalling(false);
    queue_.runUntil([] { return false; }, std::chrono::milliseconds(50));
    EXPECT_NE(manager.logText().find(localized("log.migrate_back_blocked_by_update")), std::string::npos);
  }

  // The same item twice: the first move-back waits inside its open-file check.
  std::mutex mutex;
  std::condition_variable changed;
  bool inside = false;
  bool release = false;
  duringCheck_ = [&](const std::string&, const MigrationManifest&) {
    std::unique_lock lock(mutex);
    inside = true;
    changed.notify_all();
    changed.wait(lock, [&] { return release; });
  };
  MigrationManager manager(queue_, apps_, hooks());
  std::optional<MigrationManager::OperationResult> first;
  ASSERT_TRUE(manager.migrateBackToMainDisk(app, disk_, [&](const auto& outcome) { first = outcome; }));
  {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return inside; });
  }
  EXPECT_EQ(manager.migratingBackItems().count(item_), 1u);
  EXPECT_FALSE(manager.migrateBackToMainDisk(app, disk_));
  // Nor may a forward batch take the item that is on its way back.
  EXPECT_FALSE(manager.migrateApps({item_}, disk_));
  EXPECT_FALSE(manager.isMigrating());
  // A forward batch of another item may run meanwhile, but no move-back may start during it.
  const std::string other = internal_->child("home/me/Other");
  buildSampleTree(other);
  ASSERT_TRUE(manager.migrateApps({other}, disk_));
  {
    std::lock_guard lock(mutex);
    release = true;
    changed.notify_all();
  }
  EXPECT_FALSE(manager.migrateBackToMainDisk(app, disk_));
  ASSERT_TRUE(queue_.runUntil([&] { return first.has_value() && !manager.isMigrating(); }, std::chrono::minutes(2)));
  EXPECT_EQ(first->kind, MigrationManager::OperationResult::Kind::succeeded) << manager.logText();
  EXPECT_TRUE(manager.migratingBackItems().empty());
  EXPECT_NE(manager.logText().find(localized("log.migrate_back_in_progress")), std::string::npos);
  EXPECT_NE(manager.logText().find(localized("log.migrate_back_blocked_by_migration")), std::string::npos);
  EXPECT_EQ(UpdateActivity::shared().pending(), 0);
}

TEST(MigrationDiskRootTest, TargetsUnderVolumesNameTheirVolume) {
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/Volumes/X/Applications/Foo.app"), "/Volumes/X");
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/Volumes/My Disk/Directories/Users/a/b"), "/Volumes/My Disk");
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/media/x/Applications/Foo.app"), std::nullopt);
  EXPECT_EQ(MigrationManager::diskRootFromTargetPath("/Volumes"), std::nullopt);
}

}  // namespace
}  // namespace corvane
