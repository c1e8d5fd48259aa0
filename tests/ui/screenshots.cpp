#include "screenshots.h"

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QMessageBox>
#include <QTest>
#include <QTreeWidget>
#include <cstdio>
#include <memory>

#include "catalogue/migrated_apps_file.h"
#include "engine/preflight/migration_preflight.h"
#include "fixtures/loop_disk.h"
#include "fixtures/sample_tree.h"
#include "settings/language_names.h"
#include "settings/localization_manager.h"
#include "ui/question_dialog.h"
#include "ui/ui_text.h"
#include "window_test_support.h"

namespace corvane::ui {
namespace {

const char* const kLanguages[] = {"en", "zh-Hans", "zh-Hant"};

void settle() {
  for (int i = 0; i < 5; ++i) {
    QApplication::processEvents();
    QTest::qWait(50);
  }
}

// A moved item with an older version beside it, a disk in a leftover folder's place, a scan of
// the cleaner: the state each page has to show.
struct Scene {
  std::unique_ptr<LoopDisk> backup;
  std::unique_ptr<LoopDisk> archive;
};

Scene prepare(WindowWorld& world) {
  Scene scene;
  buildSampleTree(world.applications() + "/Tool");
  writeFile(world.applications() + "/Editor/editor.bin", std::string(3 * 1024 * 1024, 'e'));
  writeFile(world.applications() + "/Player/player.bin", std::string(1024 * 1024, 'p'));
  writeFile(world.home() + "/.cache/browser/cache.db", std::string(2 * 1024 * 1024, 'c'));
  writeFile(world.home() + "/.local/share/Trash/files/old.txt", "old");
  try {
    scene.backup = LoopDisk::create("Backup");
    scene.backup->mount(world.volume("Backup"));
    scene.archive = LoopDisk::create("Archive");
    scene.archive->mount(world.volume("Archive1"));
    std::vector<MigratedApp> records(1);
    records[0].id = "00000000-0000-4000-8000-000000000001";
    records[0].appName = "Photos";
    records[0].originalPath = world.volume("Archive") + "/Photos";
    records[0].targetPath = world.volume("Archive1") + "/Directories/Photos";
    MigratedAppsFile::prepareDirectory(world.volume("Archive1"));
    MigratedAppsFile::write(records, MigratedAppsFile::currentPath(world.volume("Archive1")));
    writeFile(world.volume("Archive") + "/left behind.txt", "stale");
    writeFile(world.volume("Archive") + "/DCIM/0001.jpg", std::string(4096, 'j'));
  } catch (const VolumeUnavailable& unavailable) {
    std::fprintf(stderr, "screenshots: no loop disks (%s); the disk pages show no disk\n", unavailable.what());
  }
  return scene;
}

void moveOneItem(WindowWorld& world, MainWindow& window) {
  auto& services = window.services();
  if (!waitFor([&] { return services.disks.destinationPath().has_value(); })) return;
  auto* items = window.findChild<QTreeWidget*>("items-table");
  if (!waitFor([&] { return row(*items, "Tool") && !services.candidates.isMeasuring(); })) return;
  row(*items, "Tool")->setCheckState(0, Qt::Checked);
  click(window, "migrate");
  answer(1);
  waitFor([&] { return !services.migration.isMigrating() && !services.migration.outcomes().empty(); });
  // An older version kept beside the moved copy, as a restore or a second migration leaves it.
  const std::string target = *services.disks.destinationPath() + "/Directories" + world.applications() + "/Tool";
  buildSampleTree(target + "_backup_20250301_101500");
  // What killed runs leave for the repairs page: empty folders, an access check's folder, and a
  // staging folder nothing vouches for.
  const std::string mirrored = *services.disks.destinationPath() + "/Directories" + world.applications();
  makeDirectories(*services.disks.destinationPath() + "/Directories" + world.home() + "/Projects");
  makeDirectories(mirrored + "/.corvane-access-0F8E5C1A-3B2D-4E6F-9A7B-1C2D3E4F5A6B/b");
  writeFile(mirrored + "/.corvane-transfer-5D4C3B2A-1F0E-4D9C-8B7A-6F5E4D3C2B1A/Tool/notes.txt", "half a copy");
  row(*items, "Editor")->setCheckState(0, Qt::Checked);
}

void save(QWidget& widget, const QString& path) {
  if (!widget.grab().save(path)) std::fprintf(stderr, "screenshots: could not write %s\n", qPrintable(path));
}

// Opens a question through `open`, photographs it and dismisses it with its last button.
void saveQuestion(const std::function<void()>& open, const QString& path) {
  open();
  settle();
  for (QWidget* top : QApplication::topLevelWidgets())
    for (auto* box : top->findChildren<QMessageBox*>(kQuestionObjectName))
      if (box->isVisible()) save(*box, path);
  settle();
}

}  // namespace

int renderScreenshots(const std::string& directory) {
  WindowWorld world;
  Scene scene = prepare(world);
  MainWindow& window = world.openWindow();
  window.resize(1080, 700);
  moveOneItem(world, window);
  auto& services = window.services();
  services.cleaner.startScanning();
  waitFor([&] { return services.cleaner.currentState() == CleanerState::resultsReady; });
  window.showPage(2);
  settle();
  if (auto* moved = window.findChild<QTreeWidget*>("migrated-table"); moved && click(window, "refresh-migrated"))
    waitFor([&] { return moved->topLevelItemCount() > 0 && moved->topLevelItem(0)->childCount() > 0; });

  auto* chooser = window.findChild<QComboBox*>("language");
  for (const char* code : kLanguages) {
    // Chosen the way a person does, so that the settings page shows the choice.
    const int choice = chooser ? chooser->findText(qstr(languageDisplayName(*parseLanguage(code)))) : -1;
    if (choice >= 0) {
      chooser->setCurrentIndex(choice);
    } else {
      LocalizationManager::shared().useLanguageForThisRun(*parseLanguage(code));
    }
    const QString folder = QString::fromStdString(directory) + "/" + code;
    QDir().mkpath(folder);
    for (std::size_t i = 0; i < window.pages().size(); ++i) {
      window.showPage(i);
      settle();
      if (auto* repairs = window.findChild<QTreeWidget*>("repairs-table"); repairs && repairs->isVisible())
        waitFor([&] { return repairs->topLevelItemCount() > 0; });
      const QString name = QString(window.pages()[i]->titleKey()).section('.', -1);
      save(window, QString("%1/%2-%3.png").arg(folder).arg(i + 1, 2, 10, QChar('0')).arg(name));
    }
    // The questions, each answered with its last (cautious) button.
    const auto question = [&](const QString& name, const Question& shown) {
      saveQuestion([&] { ask(&window, shown, [](int) {}); }, folder + "/question-" + name + ".png");
      answer(static_cast<int>(shown.buttons.size()) - 1);
    };
    MigrationRuntimeBlocker socket;
    socket.key = "migration.preflight.socket";
    socket.relativePath = "run/server.sock";
    socket.owners = {"server (1234)"};
    for (const auto& [name, asked] :
         {std::pair{QString("preflight"), MigrationPreflight::question({socket})},
          std::pair{QString("administrator"), MigrationPreflight::authorizationQuestion("/opt/Tool")}}) {
      Question shown{qstr(asked.title), qstr(asked.message), {}};
      for (const auto& button : asked.buttons) shown.buttons << qstr(button);
      question(name, shown);
    }
    question("protection", {text("disk.protection.suggestion.title"),
                            text("disk.protection.suggestion.message"),
                            {text("disk.protection.suggestion.enable"), text("disk.protection.suggestion.skip")}});
    question("running", {text("ui.running.title"),
                         textFormat("ui.running.message", "Tool", "4242"),
                         {text("ui.running.quit"), text("ui.cancel")}});
    window.showPage(1);
    settle();
    if (click(window, "protect-manually")) {
      settle();
      saveQuestion([] {}, folder + "/question-manual-protection.png");
      answer(2);
    }
    window.showPage(2);
    settle();
    auto* moved = window.findChild<QTreeWidget*>("migrated-table");
    if (moved && moved->topLevelItemCount() > 0) {
      moved->setCurrentItem(moved->topLevelItem(0));
      if (click(window, "uninstall")) {
        saveQuestion([] {}, folder + "/question-uninstall.png");
        answer(1);
      }
    }
  }
  LocalizationManager::shared().useLanguageForThisRun(Language::en);
  std::printf("screenshots: written to %s\n", directory.c_str());
  return 0;
}

}  // namespace corvane::ui
