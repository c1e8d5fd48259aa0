// The desktop application driven through its real widgets: an item migrated by clicks onto a
// loop disk, watched in the progress panel, an older version restored and the item moved back
// from the list of moved items; a live socket asked about in a dialog; a
// drifted disk's leftover folder shown and repaired; the cleaner; and a language switch that
// re-renders every page at once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <QComboBox>
#include <QGroupBox>
#include <QLabel>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTest>
#include <filesystem>

#include "catalogue/migrated_apps_file.h"
#include "engine/manifest/migration_entry.h"
#include "engine/preflight/migration_socket_probe.h"
#include "fixtures/loop_disk.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "platform/volume.h"
#include "settings/localization_manager.h"
#include "ui/repairs_page.h"
#include "ui/ui_text.h"
#include "window_test_support.h"

namespace corvane::ui {
namespace {

bool isLink(const std::string& path) {
  auto entry = MigrationEntry::read(path, AT_FDCWD);
  return entry && entry->kind == MigrationEntry::Kind::symbolicLink;
}

bool isDirectory(const std::string& path) {
  auto entry = MigrationEntry::read(path, AT_FDCWD);
  return entry && entry->kind == MigrationEntry::Kind::directory;
}

TEST(MainWindowTest, AnItemMovesByClicksShowsItsProgressAndOutcomeAndMovesBack) {
  WindowWorld world;
  CORVANE_LOOP_DISK(disk, "Backup");
  disk->mount(world.volume("Backup"));
  const std::string item = world.applications() + "/Tool";
  buildSampleTree(item);
  writeFile(item + "/notes.txt", "kept word for word");

  MainWindow& window = world.openWindow();
  auto& services = window.services();
  auto* items = child<QTreeWidget>(window, "items-table");
  ASSERT_TRUE(waitFor([&] { return services.disks.destinationPath() == world.volume("Backup"); }));
  ASSERT_TRUE(waitFor([&] { return row(*items, "Tool") && !services.candidates.isMeasuring(); }));
  EXPECT_FALSE(child<QPushButton>(window, "migrate")->isEnabled()) << "nothing is ticked yet";
  row(*items, "Tool")->setCheckState(0, Qt::Checked);

  // The disk is not protected: the gate suggests it, and "Not Now" starts the batch.
  ASSERT_TRUE(click(window, "migrate"));
  QString suggestion;
  ASSERT_TRUE(answer(1, &suggestion));
  EXPECT_TRUE(suggestion.contains(text("disk.protection.suggestion.title"))) << suggestion.toStdString();
  ASSERT_TRUE(waitFor([&] { return !services.migration.isMigrating() && !services.migration.outcomes().empty(); }));

  auto* progress = child<QTreeWidget>(window, "progress-table");
  ASSERT_EQ(progress->topLevelItemCount(), 1);
  EXPECT_EQ(progress->topLevelItem(0)->text(0), "Tool");
  EXPECT_TRUE(progress->topLevelItem(0)->text(6).startsWith(text("ui.outcome.succeeded")))
      << progress->topLevelItem(0)->text(6).toStdString();
  EXPECT_TRUE(isLink(item));
  EXPECT_EQ(readFile(world.volume("Backup") + "/Directories" + item + "/notes.txt"), "kept word for word");
  ASSERT_TRUE(waitFor([&] { return row(*items, "Tool") == nullptr; })) << "a moved item leaves the candidates";
  EXPECT_TRUE(child<QPlainTextEdit>(window, "log")->toPlainText().contains("Tool"));

  // The list of moved items shows it with its link in place and an older version kept beside
  // it; restoring that version asks first and keeps the current one as another older version.
  const std::string target = world.volume("Backup") + "/Directories" + item;
  writeFile(target + "_backup_20250301_101500/notes.txt", "an older text");
  window.showPage(2);
  auto* moved = child<QTreeWidget>(window, "migrated-table");
  ASSERT_TRUE(click(window, "refresh-migrated"));
  ASSERT_TRUE(waitFor([&] { return row(*moved, "Tool") && row(*moved, "Tool")->childCount() == 1; }));
  EXPECT_EQ(row(*moved, "Tool")->text(1), text("ui.link.inPlace"));
  moved->setCurrentItem(row(*moved, "Tool")->child(0));
  ASSERT_TRUE(click(window, "restore-version"));
  ASSERT_TRUE(answer(0));
  const QString older = QString::fromStdString(target + "_backup_20250301_101500");
  ASSERT_TRUE(waitFor([&] { return row(*moved, "Tool") && row(*moved, "Tool")->childCount() == 2; }))
      << "the version that was current is kept now";
  EXPECT_NE(row(*moved, "Tool")->child(0)->text(5), older);
  EXPECT_EQ(row(*moved, "Tool")->child(0)->text(1), text("ui.migrated.backup_present"));
  EXPECT_EQ(row(*moved, "Tool")->child(1)->text(5), older);
  EXPECT_EQ(row(*moved, "Tool")->child(1)->text(1), text("ui.migrated.backup_missing")) << "it is in place now";
  EXPECT_EQ(readFile(target + "/notes.txt"), "an older text");

  // Move back asks, then brings the item home.
  moved->setCurrentItem(row(*moved, "Tool"));
  ASSERT_TRUE(click(window, "move-back"));
  QString confirmation;
  ASSERT_TRUE(answer(0, &confirmation));
  EXPECT_TRUE(confirmation.contains(QString::fromStdString(item))) << "it says where the item goes back to";
  ASSERT_TRUE(waitFor([&] { return isDirectory(item) && moved->topLevelItemCount() == 0; }));
  EXPECT_EQ(readFile(item + "/notes.txt"), "an older text");
  EXPECT_TRUE(waitFor([&] { return row(*items, "Tool") != nullptr; })) << "it can be moved again";
}

TEST(MainWindowTest, ALiveSocketInsideTheItemIsAskedAboutInADialogAndLaterLeavesItInPlace) {
  WindowWorld world;
  CORVANE_LOOP_DISK(disk, "Backup");
  disk->mount(world.volume("Backup"));
  const std::string item = world.applications() + "/Server";
  writeFile(item + "/data.txt", "served");
  auto server = OccupantProcess::listening(item, "server.sock", OccupantSocket::stream);
  // The probe child is the running program itself: the desktop application answers as the
  // probe, and so does this test binary in the window's place, instead of starting all over.
  for (const std::string& program :
       {std::string(CORVANE_GUI_BINARY), std::filesystem::read_symlink("/proc/self/exe").string()}) {
    EXPECT_EQ(MigrationSocketProbe::inspect(item + "/server.sock", program).state, MigrationSocketProbe::State::active)
        << program;
  }

  MainWindow& window = world.openWindow();
  auto& services = window.services();
  auto* items = child<QTreeWidget>(window, "items-table");
  ASSERT_TRUE(waitFor([&] { return services.disks.destinationPath() && row(*items, "Server"); }));
  row(*items, "Server")->setCheckState(0, Qt::Checked);

  // Checking tells what blocks it without touching it.
  ASSERT_TRUE(click(window, "check"));
  QString report;
  ASSERT_TRUE(answer(0, &report));
  EXPECT_TRUE(report.contains(textFormat("ui.check.blocked", "Server"))) << report.toStdString();
  EXPECT_TRUE(report.contains("server.sock")) << report.toStdString();

  services.disks.skipProtectionForSession();
  ASSERT_TRUE(click(window, "migrate"));

  // The transfer's thread waits on the question while the window keeps drawing.
  QString question;
  ASSERT_TRUE(answer(1, &question));
  EXPECT_TRUE(question.startsWith(text("migration.preflight.title"))) << question.toStdString();
  EXPECT_TRUE(question.contains("server.sock")) << question.toStdString();
  ASSERT_TRUE(waitFor([&] { return !services.migration.isMigrating() && !services.migration.outcomes().empty(); }));
  EXPECT_EQ(services.migration.outcomes()[0].kind, MigrationManager::ItemOutcome::Kind::deferred);
  EXPECT_TRUE(
      child<QTreeWidget>(window, "progress-table")->topLevelItem(0)->text(6).startsWith(text("ui.outcome.deferred")));
  EXPECT_TRUE(isDirectory(item)) << "left in place";
  EXPECT_EQ(readFile(item + "/data.txt"), "served");
}

TEST(MainWindowTest, ALeftoverFolderInTheDisksPlaceIsShownWithItsContentsAndRepaired) {
  WindowWorld world;
  CORVANE_LOOP_DISK(disk, "Backup");
  disk->mount(world.volume("Backup1"));
  // Records of items that came from the disk's own place vote for where it belongs.
  std::vector<MigratedApp> records(1);
  records[0].id = "00000000-0000-4000-8000-000000000001";
  records[0].appName = "Tool";
  records[0].originalPath = world.volume("Backup") + "/Apps/Tool";
  records[0].targetPath = world.volume("Backup1") + "/Directories/Tool";
  MigratedAppsFile::prepareDirectory(world.volume("Backup1"));
  MigratedAppsFile::write(records, MigratedAppsFile::currentPath(world.volume("Backup1")));
  writeFile(world.volume("Backup") + "/left behind.txt", "stale");

  MainWindow& window = world.openWindow();
  window.showPage(1);
  QGroupBox* alert = nullptr;
  ASSERT_TRUE(waitFor([&] {
    alert = child<QGroupBox>(window, "ghost-alert");
    return alert && alert->findChild<QLabel*>()->text().contains("left behind.txt");
  })) << "the alert names what the folder holds";
  EXPECT_EQ(alert->title(), text("ghost_files.title"));

  ASSERT_TRUE(click(*alert, "repair-ghost"));
  QString confirmation;
  ASSERT_TRUE(answer(0, &confirmation));
  EXPECT_TRUE(confirmation.contains(QString::fromStdString(world.volume("Backup"))));
  QString result;
  ASSERT_TRUE(answer(0, &result));
  EXPECT_TRUE(result.contains(text("ui.done"))) << result.toStdString();
  EXPECT_TRUE(platform::isMountPoint(world.volume("Backup")));
  EXPECT_FALSE(MigrationEntry::read(world.volume("Backup") + "/left behind.txt", AT_FDCWD));
  EXPECT_TRUE(waitFor([&] { return child<QGroupBox>(window, "ghost-alert") == nullptr; }));
}

// An updater's new item, a killed move back's empty folders, a killed access check's folder and
// a staging folder nothing vouches for: the ticked repairs run, the unticked and unprovable ones
// stay; the updated item's previous copy is kept as a version, which an uninstall removes only
// when asked to.
TEST(MainWindowTest, RepairsFixOnlyTheTickedProvableFindingsAndUninstallTakesVersionsWhenAsked) {
  WindowWorld world;
  CORVANE_LOOP_DISK(disk, "Backup");
  const std::string volume = world.volume("Backup");
  disk->mount(volume);
  const std::string item = world.applications() + "/Tool";
  writeFile(item + "/notes.txt", "first release");
  MainWindow& window = world.openWindow();
  auto& services = window.services();
  ASSERT_TRUE(waitFor([&] { return services.disks.destinationPath() == volume; }));
  ASSERT_TRUE(services.migration.migrateApps({item}, volume));
  ASSERT_TRUE(waitFor([&] { return !services.migration.isMigrating() && !services.migration.outcomes().empty(); }));
  ASSERT_TRUE(isLink(item));
  const std::string target = volume + "/Directories" + item;

  ASSERT_EQ(::unlink(item.c_str()), 0);
  writeFile(item + "/notes.txt", "second release");
  const std::string emptyChain = volume + "/Directories" + world.home();
  makeDirectories(emptyChain + "/Projects");
  const std::string rehearsal =
      volume + "/Directories" + world.applications() + "/.corvane-access-0F8E5C1A-3B2D-4E6F-9A7B-1C2D3E4F5A6B";
  makeDirectories(rehearsal + "/b");
  const std::string staging =
      volume + "/Directories" + world.applications() + "/.corvane-transfer-5D4C3B2A-1F0E-4D9C-8B7A-6F5E4D3C2B1A";
  writeFile(staging + "/Tool/notes.txt", "half a copy");

  window.showPage(3);
  auto* table = child<QTreeWidget>(window, "repairs-table");
  const auto rowMentioning = [&](const std::string& path) -> QTreeWidgetItem* {
    for (int i = 0; i < table->topLevelItemCount(); ++i)
      if (table->topLevelItem(i)
              ->data(2, RepairsPage::kDescriptionRole)
              .toString()
              .contains(QString::fromStdString(path)))
        return table->topLevelItem(i);
    return nullptr;
  };
  const auto shown = [&] {
    std::string rows = child<QLabel>(window, "repairs-status")->text().toStdString();
    for (int i = 0; i < table->topLevelItemCount(); ++i)
      rows += "\n" + table->topLevelItem(i)->data(2, RepairsPage::kDescriptionRole).toString().toStdString();
    return rows;
  };
  ASSERT_TRUE(waitFor([&] { return rowMentioning(item) && rowMentioning(rehearsal) && rowMentioning(staging); }))
      << shown();
  ASSERT_TRUE(rowMentioning(emptyChain));
  EXPECT_EQ(rowMentioning(staging)->text(0), text("ui.repairs.by_hand"));
  EXPECT_FALSE(rowMentioning(staging)->flags() & Qt::ItemIsUserCheckable) << "nothing vouches for it";
  EXPECT_EQ(rowMentioning(item)->checkState(0), Qt::Checked);
  rowMentioning(rehearsal)->setCheckState(0, Qt::Unchecked);

  ASSERT_TRUE(click(window, "repair-findings"));
  QString confirmation;
  ASSERT_TRUE(answer(0, &confirmation));
  EXPECT_TRUE(confirmation.contains(QString::fromStdString(item))) << confirmation.toStdString();
  EXPECT_FALSE(confirmation.contains(QString::fromStdString(rehearsal))) << "unticked";
  auto* status = child<QLabel>(window, "repairs-status");
  ASSERT_TRUE(waitFor([&] {
    return status->text().contains(textFormat("ui.repairs.summary", 2, 0)) && !rowMentioning(item) &&
           rowMentioning(staging);
  })) << shown();
  EXPECT_FALSE(rowMentioning(emptyChain));
  EXPECT_TRUE(rowMentioning(rehearsal)) << "left for a later repair";
  EXPECT_TRUE(isDirectory(rehearsal + "/b"));
  EXPECT_EQ(readFile(staging + "/Tool/notes.txt"), "half a copy");
  ASSERT_TRUE(isLink(item));
  EXPECT_EQ(readFile(target + "/notes.txt"), "second release");
  const auto records = MigratedAppsFile::read(MigratedAppsFile::currentPath(volume));
  ASSERT_EQ(records.size(), 1u);
  const auto versions = MigrationManager::retainedVersionsOf(records[0]);
  ASSERT_EQ(versions.size(), 1u);
  EXPECT_EQ(readFile(versions[0] + "/notes.txt"), "first release");

  window.showPage(2);
  auto* moved = child<QTreeWidget>(window, "migrated-table");
  ASSERT_TRUE(click(window, "refresh-migrated"));
  ASSERT_TRUE(waitFor([&] { return row(*moved, "Tool") != nullptr; }));
  moved->setCurrentItem(row(*moved, "Tool"));
  ASSERT_TRUE(click(window, "uninstall"));
  ASSERT_TRUE(answer(1, &confirmation, true));  // Cancel, even with the box ticked: nothing goes
  EXPECT_TRUE(confirmation.contains(QString::fromStdString(versions[0]))) << confirmation.toStdString();
  EXPECT_TRUE(isLink(item));
  EXPECT_TRUE(isDirectory(versions[0]));
  ASSERT_TRUE(click(window, "uninstall"));
  ASSERT_TRUE(answer(0, nullptr, true));
  ASSERT_TRUE(waitFor([&] { return !MigrationEntry::read(item, AT_FDCWD) && moved->topLevelItemCount() == 0; }));
  EXPECT_FALSE(MigrationEntry::read(target, AT_FDCWD));
  EXPECT_FALSE(MigrationEntry::read(versions[0], AT_FDCWD));
  EXPECT_EQ(readFile(staging + "/Tool/notes.txt"), "half a copy");
}

TEST(MainWindowTest, TheCleanerScansAndCleansOnlyAfterConfirmation) {
  WindowWorld world;
  writeFile(world.home() + "/.cache/tool/blob", std::string(64 * 1024, 'x'));
  MainWindow& window = world.openWindow();
  window.showPage(5);
  auto& cleaner = window.services().cleaner;
  ASSERT_TRUE(click(window, "scan"));
  ASSERT_TRUE(waitFor([&] { return cleaner.currentState() == CleanerState::resultsReady; }));
  auto* table = child<QTreeWidget>(window, "cleaner-table");
  ASSERT_GE(table->topLevelItemCount(), 1);
  EXPECT_EQ(table->topLevelItem(0)->text(0), text("cleaner.category.system"));

  ASSERT_TRUE(click(window, "clean"));
  ASSERT_TRUE(answer(1));  // Cancel: nothing is removed
  EXPECT_EQ(cleaner.currentState(), CleanerState::resultsReady);
  EXPECT_TRUE(MigrationEntry::read(world.home() + "/.cache/tool/blob", AT_FDCWD));

  ASSERT_TRUE(click(window, "clean"));
  ASSERT_TRUE(answer(0));
  ASSERT_TRUE(waitFor([&] { return cleaner.currentState() == CleanerState::done; }));
  EXPECT_FALSE(MigrationEntry::read(world.home() + "/.cache/tool/blob", AT_FDCWD));
}

TEST(MainWindowTest, SwitchingTheLanguageRerendersEveryPageAtOnce) {
  WindowWorld world;
  MainWindow& window = world.openWindow();
  auto* sidebar = child<QListWidget>(window, "sidebar");
  auto buttonTexts = [&] {
    std::map<QPushButton*, QString> texts;
    for (auto* button : window.findChildren<QPushButton*>()) texts[button] = button->text();
    return texts;
  };
  const auto english = buttonTexts();
  ASSERT_EQ(sidebar->item(0)->text(), "Move Items");

  auto* language = child<QComboBox>(window, "language");
  language->setCurrentIndex(2);  // Simplified Chinese
  EXPECT_EQ(LocalizationManager::shared().languageCode(), "zh-Hans");
  for (std::size_t i = 0; i < window.pages().size(); ++i)
    EXPECT_EQ(sidebar->item(static_cast<int>(i))->text(), text(window.pages()[i]->titleKey()));
  EXPECT_EQ(sidebar->item(0)->text(), "迁移项目");
  for (const auto& [button, before] : buttonTexts())
    if (english.count(button)) {
      EXPECT_NE(button->text(), english.at(button)) << before.toStdString();
    }
  EXPECT_EQ(child<QTreeWidget>(window, "items-table")->headerItem()->text(0), "名称");
  EXPECT_EQ(language->currentIndex(), 2) << "the chooser shows the choice in the new language";

  language->setCurrentIndex(3);  // Traditional Chinese
  EXPECT_EQ(sidebar->item(1)->text(), "磁碟");
  language->setCurrentIndex(1);  // English again
  EXPECT_EQ(buttonTexts(), english);
}

}  // namespace
}  // namespace corvane::ui
