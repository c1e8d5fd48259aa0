#include "engine/switch/migration_access.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "engine/item_test_support.h"
#include "engine/manifest/migration_link_plan.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/sample_tree.h"
#include "fixtures/shell_administrator_runner.h"
#include "fixtures/test_volume.h"
#include "platform/file_system.h"
#include "platform/process.h"

namespace corvane {
namespace {

using Kind = MigrationEntry::Kind;

// An item on an internal volume and its copy on an external one; as root, a permission reference
// on a read-only volume makes the item count as not deletable, so commands go to the runner.
class AccessFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      internal_ = TestVolume::create(VolumeKind::ext4);
      external_ = TestVolume::create(VolumeKind::xfs);
    } catch (const VolumeUnavailable& unavailable) {
      GTEST_SKIP() << "needs ext4 and xfs volumes: " << unavailable.what();
    }
    makeDirectories(internal_->child("Applications"));
    makeDirectories(external_->child("Applications"));
  }
  void makeItem(const std::string& name) {
    source_ = internal_->child("Applications/" + name);
    buildSampleTree(source_);
    writeFile(internal_->child("outside.txt"), "outside\n");
    manifest_ = scanned(source_);
    target_ = external_->child("Applications/" + name);
    copyTree(source_, target_);
  }
  void useAdministrator() {
    readOnly_ = TestVolume::create(VolumeKind::tmpfs);
    writeFile(readOnly_->child("reference"), "");
    remountReadOnly(*readOnly_);
    permissionReference_ = readOnly_->child("reference");
  }
  MigrationAccess::Configuration configuration() const {
    return {
        runner_, MigrationPrivilegedCommands(platform::PrivilegedCommandStyle::corvaneHelper, corvaneBinaryPath()), {}};
  }
  MigrationAccess access() const {
    return MigrationAccess(source_, manifest_.at(""), permissionReference_, configuration());
  }
  bool leftovers() const {  // a probe directory or anything else of ours beside the item
    const auto names = namesIn(internal_->child("Applications"));
    return std::any_of(names.begin(), names.end(), [](const auto& name) { return name.find(".corvane") != name.npos; });
  }

  std::unique_ptr<TestVolume> internal_, external_, readOnly_;
  std::string source_, target_;
  MigrationManifest manifest_;
  std::optional<std::string> permissionReference_;
  std::shared_ptr<ShellAdministratorRunner> runner_ = std::make_shared<ShellAdministratorRunner>();
};

// The user's own path is exercised by the manager's round trip; here every step runs as a command.
TEST_F(AccessFixture, ThroughTheAdministratorTheItemGoesAndComesBackUnlessSomethingChanged) {
  useAdministrator();
  // Every character a shell or a script literal could trip over.
  makeItem("It's \"odd\" \\ back\nslash 中文 space.app");
  {
    MigrationAccess access = this->access();
    EXPECT_TRUE(access.usesAdministrator());
    access.prepare();
    EXPECT_FALSE(leftovers()) << "the rehearsal removes its probe directory";
    const std::string backup = access.install(target_, {});
    EXPECT_EQ(entryAt(backup)->identity(), manifest_.at("").identity());
    ASSERT_EQ(entryAt(source_)->kind, Kind::symbolicLink);
    EXPECT_EQ(*entryAt(source_)->link, target_);
    std::vector<std::string> checked;
    access.cleanupBackup(backup, manifest_, {}, MigrationLinkPlan::relocatedTargets(source_, manifest_),
                         [&](const std::string& path) { checked.push_back(path); });
    EXPECT_EQ(checked.size(), manifest_.size());
    EXPECT_FALSE(entryAt(backup));
    EXPECT_FALSE(leftovers());
    EXPECT_EQ(runner_->commands.front().rfind("set -e; /bin/mkdir -m 700 ", 0), 0u);
    EXPECT_EQ(runner_->commands.back().rfind("/bin/rmdir ", 0), 0u);
    std::string ran;
    for (const auto& command : runner_->commands) ran += command + "\n";
    for (const char* step : {"--corvane-exchange --rehearse", "--corvane-exchange --checked",
                             "--corvane-file-operation createSymbolicLinkAtPathWithDestinationPathError"}) {
      EXPECT_NE(ran.find(step), std::string::npos) << step;
    }
  }
  // The way back: a verified copy staged beside the original path takes the link's place, but
  // never a copy that changed, a link that was replaced or a real object.
  const std::string staging = internal_->child("Applications/.corvane-transfer-test");
  const std::string dataSource = staging + "/" + source_.substr(source_.rfind('/') + 1);
  makeDirectories(staging);
  copyTree(target_, dataSource);
  const MigrationEntry copy = *entryAt(dataSource);
  const MigrationManifest externalManifest = scanned(target_);
  MigrationAccess stale(source_, std::nullopt, permissionReference_, configuration());
  ASSERT_EQ(::chmod(dataSource.c_str(), 0700), 0);
  EXPECT_EQ(issueKeyOf([&] { stale.restore(copy, dataSource, {}); }), "error.migration_copy_mismatch");
  ASSERT_EQ(::chmod(dataSource.c_str(), copy.mode), 0);
  ASSERT_EQ(::symlink(target_.c_str(), (source_ + ".new").c_str()), 0);
  ASSERT_EQ(::rename((source_ + ".new").c_str(), source_.c_str()), 0);
  EXPECT_EQ(issueKeyOf([&] { stale.restore(copy, dataSource, {}); }), "error.migration_restore_conflict")
      << "a new link with the same text is not the link that was left";
  EXPECT_EQ(entryAt(dataSource)->kind, Kind::directory);
  MigrationAccess atARealFile(internal_->child("outside.txt"), std::nullopt, std::nullopt, configuration());
  EXPECT_EQ(issueKeyOf([&] { atARealFile.restore(copy, dataSource, {}); }), "migration.preflight.restore_not_link");
  MigrationAccess back(source_, std::nullopt, permissionReference_, configuration());
  bool hookRan = false;
  back.restore(copy, dataSource, [&] { hookRan = true; });
  EXPECT_TRUE(hookRan);
  EXPECT_EQ(entryAt(source_)->identity(), copy.identity());
  EXPECT_EQ(entryAt(dataSource)->kind, Kind::symbolicLink);
  back.cleanupRestoredSource(target_, externalManifest, {}, {}, source_, copy);
  EXPECT_FALSE(entryAt(target_));
  EXPECT_EQ(readFile(source_ + "/Contents/Info.plist"), "<plist>sample</plist>\n");
}

TEST_F(AccessFixture, LockedReplacedOrMovedItemsAndChangedOriginalsAreNeverTouched) {
  makeItem("Item.app");
  platform::setFileFlags(source_, platform::kSystemImmutable);
  EXPECT_EQ(issueKeyOf([&] { access().prepare(); }), "migration.preflight.locked");
  EXPECT_FALSE(leftovers()) << "a locked item fails the rehearsal before any probe exists";
  platform::setFileFlags(source_, 0);
  MigrationEntry other = manifest_.at("");
  other.inode += 1;
  EXPECT_EQ(issueKeyOf([&] { MigrationAccess(source_, other, std::nullopt, configuration()); }),
            "error.migration_source_changed");
  EXPECT_EQ(issueKeyOf([&] { MigrationAccess(internal_->child("outside.txt/inner")); }), "migration.preflight.parent");
  // The item's directory moved away and another put in its place with an item of the same name.
  MigrationAccess access = this->access();
  const std::string parent = internal_->child("Applications");
  ASSERT_EQ(::rename(parent.c_str(), internal_->child("Applications-moved").c_str()), 0);
  makeDirectories(source_);
  EXPECT_EQ(issueKeyOf([&] { access.prepare(); }), "migration.preflight.parent");
  EXPECT_EQ(issueKeyOf([&] { access.install(target_, {}); }), "migration.preflight.parent");
  EXPECT_EQ(entryAt(source_)->kind, Kind::directory);
  EXPECT_EQ(entryAt(internal_->child("Applications-moved/Item.app"))->kind, Kind::directory);
  // The item itself replaced after the access was made.
  ASSERT_EQ(::rmdir(source_.c_str()), 0);
  ASSERT_EQ(::rmdir(parent.c_str()), 0);
  ASSERT_EQ(::rename(internal_->child("Applications-moved").c_str(), parent.c_str()), 0);
  ASSERT_EQ(::rename(source_.c_str(), internal_->child("Applications/Item-moved.app").c_str()), 0);
  makeDirectories(source_);
  EXPECT_EQ(issueKeyOf([&] { access.install(target_, {}); }), "error.migration_source_changed");
  EXPECT_EQ(entryAt(source_)->kind, Kind::directory);
  // A kept original goes only while unused, exactly as recorded, and with the link to the copy.
  makeItem("Cleaned.app");
  auto configuration = this->configuration();
  bool busy = true;
  configuration.requireIdle = [&](const std::string&, const MigrationManifest&) {
    if (busy) throw MigrationIssue("migration.preflight.occupancy_unknown");
  };
  MigrationAccess switched(source_, manifest_.at(""), std::nullopt, configuration);
  const std::string backup = switched.install(target_, {});
  const auto relocated = MigrationLinkPlan::relocatedTargets(source_, manifest_);
  auto attempt = [&] { switched.cleanupBackup(backup, manifest_, {}, relocated); };
  const std::size_t count = scanned(backup).size();
  EXPECT_EQ(issueKeyOf(attempt), "migration.preflight.occupancy_unknown");
  busy = false;
  writeFile(backup + "/Contents/written-after-the-scan", "new data");
  EXPECT_EQ(issueKeyOf(attempt), "migration.safety.conflict");
  ASSERT_EQ(::unlink((backup + "/Contents/written-after-the-scan").c_str()), 0);
  writeFile(backup + "/Contents/Info.plist", "<plist>changed</plist>\n");
  EXPECT_EQ(issueKeyOf(attempt), "error.migration_source_changed");
  EXPECT_EQ(scanned(backup).size(), count) << "nothing was removed";
  ASSERT_EQ(::unlink(source_.c_str()), 0);
  ASSERT_EQ(::symlink("/elsewhere", source_.c_str()), 0);
  EXPECT_EQ(issueKeyOf(attempt), "migration.safety.conflict");
  EXPECT_EQ(scanned(backup).size(), count);
}

// The original's branches are removed side by side; an entry that changes after the checks is
// met right before its removal, stops every branch and stays as it is.
TEST_F(AccessFixture, AnOriginalChangedDuringItsRemovalStopsItAndKeepsTheChange) {
  makeItem("Item.app");
  const std::string changed = "/Contents/Resources/deep/deeper/private.txt";
  auto configuration = this->configuration();
  std::string backup;
  configuration.requireIdle = [&](const std::string&, const MigrationManifest&) {
    writeFile(backup + changed, "written during the removal\n");
  };
  MigrationAccess switched(source_, manifest_.at(""), std::nullopt, configuration);
  backup = switched.install(target_, {});
  EXPECT_EQ(issueKeyOf([&] {
              switched.cleanupBackup(backup, manifest_, {}, MigrationLinkPlan::relocatedTargets(source_, manifest_));
            }),
            "migration.safety.conflict");
  EXPECT_EQ(readFile(backup + changed), "written during the removal\n");
  EXPECT_EQ(entryAt(source_)->kind, Kind::symbolicLink);
}

// Through the administrator nothing moves unless a command runs as written: the exchange re-reads
// the directory, the item and the link just before the swap, and stops if any was replaced.
TEST_F(AccessFixture, AdministratorCommandsMoveNothingUnlessTheyRunAsWritten) {
  useAdministrator();
  for (const std::string which : {"parent", "link"}) {
    SCOPED_TRACE(which);
    const std::string parent = internal_->child(which);
    makeDirectories(parent + "/Item");
    ASSERT_EQ(::symlink("/target", (parent + "/Item.link").c_str()), 0);
    const std::string command =
        configuration().commands->exchangeCommand(parent + "/Item", parent + "/Item.link", ExchangeCheck::checked);
    if (which == "parent") {
      ASSERT_EQ(::rename(parent.c_str(), (parent + "-moved").c_str()), 0);
      makeDirectories(parent + "/Item");
      ASSERT_EQ(::symlink("/target", (parent + "/Item.link").c_str()), 0);
    } else {
      ASSERT_EQ(::symlink("/target", (parent + "/Item.link2").c_str()), 0);
      ASSERT_EQ(::rename((parent + "/Item.link2").c_str(), (parent + "/Item.link").c_str()), 0);
    }
    EXPECT_EQ(issueKeyOf([&] { MigrationAccess::runAdministrator(command, *runner_); }),
              "migration.preflight.authorization_failed");
    EXPECT_EQ(entryAt(parent + "/Item")->kind, Kind::directory) << "nothing was swapped";
    EXPECT_EQ(entryAt(parent + "/Item.link")->kind, Kind::symbolicLink);
  }
  // A dismissed dialog defers; a command that fails is an authorization failure.
  makeItem("Item.app");
  MigrationAccess access = this->access();
  runner_->dismissed = true;
  EXPECT_EQ(issueKeyOf([&] { access.prepare(); }), "migration.preflight.deferred");
  EXPECT_EQ(issueKeyOf([&] { access.install(target_, {}); }), "migration.preflight.deferred");
  EXPECT_EQ(entryAt(source_)->kind, Kind::directory);
  EXPECT_FALSE(leftovers());
  runner_->dismissed = false;
  EXPECT_EQ(issueKeyOf([&] { MigrationAccess::runAdministrator("echo refused >&2; exit 3", *runner_); }),
            "migration.preflight.authorization_failed");
  EXPECT_NO_THROW(MigrationAccess::runAdministrator("true", *runner_));
  // Through install(): the item replaced just before the checked command runs.
  runner_->beforeRun = [&](const std::string& command) {
    if (command.find("--checked") == std::string::npos) return;
    ASSERT_EQ(::rename(source_.c_str(), (source_ + "-moved").c_str()), 0);
    writeFile(source_ + "/impostor", "x");
  };
  EXPECT_EQ(issueKeyOf([&] { access.install(target_, {}); }), "migration.preflight.authorization_failed");
  EXPECT_EQ(readFile(source_ + "/impostor"), "x");
  EXPECT_EQ(namesIn(internal_->child("Applications")), (std::vector<std::string>{"Item.app", "Item.app-moved"}))
      << "the new link was removed";
  // FAT holds neither link nor swap: the rehearsal fails in both forms and leaves no probe behind.
  runner_->beforeRun = {};
  CORVANE_TEST_VOLUME(fat, VolumeKind::fat);
  writeFile(fat->child("Item/data.txt"), "data");
  MigrationAccess direct(fat->child("Item"), std::nullopt, std::nullopt, configuration());
  EXPECT_FALSE(direct.usesAdministrator());
  EXPECT_THROW(direct.prepare(), std::exception);
  MigrationAccess administrator(fat->child("Item"), std::nullopt, permissionReference_, configuration());
  EXPECT_TRUE(administrator.usesAdministrator());
  EXPECT_EQ(issueKeyOf([&] { administrator.prepare(); }), "migration.preflight.authorization_failed");
  EXPECT_EQ(namesIn(fat->mountPoint()), std::vector<std::string>{"Item"});
  EXPECT_EQ(readFile(fat->child("Item/data.txt")), "data");
}

}  // namespace
}  // namespace corvane
