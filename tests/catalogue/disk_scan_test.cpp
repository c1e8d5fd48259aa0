#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "catalogue/app_bundle_metadata.h"
#include "catalogue/app_manager.h"
#include "catalogue/catalogue_test_support.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "support/paths.h"
#include "support/uuid.h"

namespace corvane {
namespace {

// A disk whose record file is lost: its Applications and Directories folders are all there is.
class DiskScanTest : public ::testing::Test {
 protected:
  std::string mirrored(const std::string& original) { return disk_.child("Directories") + original; }

  TemporaryDirectory disk_;
  TemporaryDirectory home_;  // stands for a folder on the internal disk
};

TEST_F(DiskScanTest, RebuildsOneRecordPerMigratedBundleAndFolder) {
  makeBundle(disk_.child("Applications/Foo.app"), "1.2.3", PropertyListForm::xml);
  makeBundle(disk_.child("Applications/Bar.app"), "4.5", PropertyListForm::binary);
  makeBundle(disk_.child("Applications/Foo_backup_20240101_120000.app"), "1.0", PropertyListForm::xml);
  makeBundle(disk_.child("Applications/Qux_backup_later.app"), "2", PropertyListForm::xml);  // no timestamp: an app
  makeDirectories(disk_.child("Applications/Baz.APP"));  // the scan wants exactly "app"
  makeDirectories(disk_.child("Applications/.corvane-transfer-" + makeUuidString()));
  writeFile(disk_.child("Applications/readme.txt"), "x");

  // /…/home/Projects was migrated: its copy mirrors the full path and a link stands at home.
  const std::string projects = home_.child("Projects");
  makeDirectories(mirrored(projects) + "/src");
  writeFile(mirrored(projects) + "/src/main.c", "int main;");
  ASSERT_EQ(::symlink(mirrored(projects).c_str(), projects.c_str()), 0);
  makeDirectories(mirrored(projects) + "_backup_20240101_120000");
  // Music was moved back by hand: a real folder at home, a stale copy on the disk.
  makeDirectories(home_.child("Music"));
  makeDirectories(mirrored(home_.child("Music")));
  writeFile(mirrored(home_.child("Music")) + "/song.mp3", "la");
  makeDirectories(mirrored(home_.path()) + "/.corvane-transfer-" + makeUuidString() + "/Half");
  // Transfers under way: the folder they build an item in is no item, in whatever it holds
  // beside them; the folders beside a transfer may be.
  const std::string staging = "/.corvane-transfer-" + makeUuidString();
  writeFile(mirrored(home_.child("Incoming")) + staging + "/Project/a.txt", "a");
  writeFile(mirrored(home_.child("Shared")) + staging + "/Project/a.txt", "a");
  writeFile(mirrored(home_.child("Shared/Docs")) + "/b.txt", "b");
  ASSERT_EQ(::symlink(mirrored(home_.child("Linked")).c_str(), home_.child("Linked").c_str()), 0);
  writeFile(mirrored(home_.child("Linked")) + staging + "/Project/a.txt", "a");
  writeFile(mirrored(home_.child("Mixed")) + staging + "/Project/a.txt", "a");
  writeFile(mirrored(home_.child("Mixed")) + "/c.txt", "c");
  makeBundle(disk_.child("Applications/Odd.app"), "1", PropertyListForm::xml);
  makeDirectories(disk_.child("Applications/Odd.app") + staging);
  // A folder from a machine that has no such place: catalogued where it stands.
  makeDirectories(disk_.child("Directories/elsewhere-" + makeUuidString()) + "/Data");
  makeDirectories(disk_.child("Directories/.corvane-transfer-" + makeUuidString()));
  writeFile(disk_.child("Directories/stray.txt"), "x");
  ASSERT_EQ(::symlink("/", disk_.child("Directories/root-link").c_str()), 0);

  const auto apps = AppManager::scannedRecords(disk_.path());
  std::map<std::string, MigratedApp> byOriginal;
  for (const auto& app : apps) byOriginal.emplace(app.originalPath, app);
  ASSERT_EQ(apps.size(), 7u) << ::testing::PrintToString([&] {
    std::vector<std::string> originals;
    for (const auto& app : apps) originals.push_back(app.originalPath);
    return originals;
  }());
  // Applications come first.
  EXPECT_EQ(apps[0].itemType, MigratedItemType::application);
  EXPECT_EQ(apps[2].itemType, MigratedItemType::application);
  EXPECT_EQ(apps[3].itemType, MigratedItemType::directory);

  const MigratedApp& foo = byOriginal.at("/Applications/Foo.app");
  EXPECT_EQ(foo.appName, "Foo.app");
  EXPECT_EQ(foo.targetPath, disk_.child("Applications/Foo.app"));
  EXPECT_TRUE(isUuidString(foo.id));
  EXPECT_EQ(byOriginal.count("/Applications/Bar.app"), 1u);
  EXPECT_EQ(byOriginal.count("/Applications/Qux_backup_later.app"), 1u);

  const MigratedApp& found = byOriginal.at(projects);
  EXPECT_EQ(found.appName, "Projects");
  EXPECT_EQ(found.targetPath, mirrored(projects));
  EXPECT_EQ(found.itemType, MigratedItemType::directory);
  EXPECT_EQ(byOriginal.count(home_.child("Music")), 1u);
  EXPECT_EQ(byOriginal.count(home_.child("Shared/Docs")), 1u);
  for (const char* holder : {"Incoming", "Shared", "Linked", "Mixed"})
    EXPECT_EQ(byOriginal.count(home_.child(holder)), 0u) << holder;
  EXPECT_EQ(byOriginal.count("/Applications/Odd.app"), 0u);
  EXPECT_EQ(std::count_if(apps.begin(), apps.end(),
                          [](const MigratedApp& app) { return app.originalPath.rfind("/elsewhere-", 0) == 0; }),
            1);

  EXPECT_EQ(AppBundleMetadata::version(foo.targetPath), "1.2.3");
  EXPECT_EQ(AppBundleMetadata::version(byOriginal.at("/Applications/Bar.app").targetPath), "4.5");
}

TEST(AppBundleMetadataTest, ReadsTheShortVersionFromEitherFormAndNothingElse) {
  TemporaryDirectory dir;
  EXPECT_EQ(AppBundleMetadata::versionFromPropertyList(infoPropertyList("10.0 (beta)", PropertyListForm::xml)),
            "10.0 (beta)");
  EXPECT_EQ(AppBundleMetadata::versionFromPropertyList(infoPropertyList("版本 3", PropertyListForm::binary)), "版本 3");
  const std::string numeric =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
      "<key>CFBundleShortVersionString</key><integer>3</integer></dict></plist>";
  EXPECT_FALSE(AppBundleMetadata::versionFromPropertyList(numeric).has_value());
  EXPECT_FALSE(
      AppBundleMetadata::versionFromPropertyList("<plist><dict><key>CFBundleShortVersionString</key>").has_value());
  std::string binary = infoPropertyList("1.0", PropertyListForm::binary);
  EXPECT_FALSE(AppBundleMetadata::versionFromPropertyList(binary.substr(0, binary.size() / 2)).has_value());
  for (std::size_t index = 8; index < binary.size(); index += 3) {
    std::string damaged = binary;
    damaged[index] = static_cast<char>(damaged[index] ^ 0x5a);
    (void)AppBundleMetadata::versionFromPropertyList(damaged);  // must simply not crash
  }
  EXPECT_FALSE(AppBundleMetadata::versionFromPropertyList("bplist00").has_value());

  EXPECT_FALSE(AppBundleMetadata::version(dir.child("Missing.app")).has_value());
  makeDirectories(dir.child("Fifo.app/Contents"));
  ASSERT_EQ(::mkfifo(dir.child("Fifo.app/Contents/Info.plist").c_str(), 0644), 0);
  EXPECT_FALSE(AppBundleMetadata::version(dir.child("Fifo.app")).has_value());
  makeDirectories(dir.child("Dir.app/Contents/Info.plist"));
  EXPECT_FALSE(AppBundleMetadata::version(dir.child("Dir.app")).has_value());
}

}  // namespace
}  // namespace corvane
