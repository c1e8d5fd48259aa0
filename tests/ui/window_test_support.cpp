#include "window_test_support.h"

#include <QApplication>
#include <QMessageBox>
#include <QTest>

#include "fixtures/sample_tree.h"
#include "platform/mounted_volumes.h"
#include "platform/volume_description.h"
#include "ui/question_dialog.h"

namespace corvane::ui {

WindowWorld::WindowWorld() {
  makeDirectories(volumesRoot());
  makeDirectories(applications());
  makeDirectories(home());
  FstabManager::Configuration fstab;
  fstab.fstabPath = work_.child("fstab");
  writeFile(fstab.fstabPath, "# test table\n");
  fstab.volumesRoots = {volumesRoot()};
  fstab.administratorRunner = runner_;
  fstab.isSIPEnabled = [] { return false; };
  fstab.describeVolume = [](const std::string& path) { return platform::describeVolume(path); };
  fstab_ = std::make_unique<FstabManager>(fstab);
}

WindowWorld::~WindowWorld() { window_.reset(); }

MainWindow& WindowWorld::openWindow() {
  MainWindow::Configuration configuration;
  configuration.fstab = fstab_.get();
  configuration.disks.volumesRoots = VolumesRoots({volumesRoot()});
  configuration.disks.listVolumes = [] { return platform::mountedVolumes(); };
  configuration.disks.watchVolumes = true;
  configuration.disks.mounter.udisksctl = "-";
  configuration.disks.mounter.administratorRunner = runner_;
  configuration.cleaner = DevCleanerManager::Configuration::forCurrentUser();
  configuration.cleaner.homeDirectory = home();
  configuration.cleaner.dockerCandidates = {};
  configuration.candidates.folders = {{applications(), false}};
  configuration.doctor.roots = VolumesRoots({volumesRoot()});
  configuration.doctor.applicationFolders = {applications()};
  configuration.doctor.linkPlaces = {{applications(), 0}, {home(), 2}};
  window_ = std::make_unique<MainWindow>(std::move(configuration));
  window_->show();
  return *window_;
}

bool waitFor(const std::function<bool()>& condition) { return QTest::qWaitFor(condition, 20000); }

bool click(QWidget& parent, const char* name) {
  auto* button = parent.findChild<QAbstractButton*>(name);
  if (!button || !button->isEnabled()) return false;
  QTest::mouseClick(button, Qt::LeftButton);
  return true;
}

bool answer(int index, QString* text, bool tickOption) {
  QMessageBox* box = nullptr;
  const bool shown = waitFor([&] {
    for (QWidget* widget : QApplication::topLevelWidgets())
      for (auto* candidate : widget->findChildren<QMessageBox*>(kQuestionObjectName))
        if (candidate->isVisible()) box = candidate;
    return box != nullptr;
  });
  if (!shown) return false;
  if (text) *text = box->text() + "\n" + box->informativeText();
  if (tickOption) {
    auto* option = box->findChild<QAbstractButton*>(kQuestionOptionObjectName);
    if (!option) return false;
    QTest::mouseClick(option, Qt::LeftButton);
  }
  return click(*box, QString("answer-%1").arg(index).toUtf8().constData());
}

QTreeWidgetItem* row(QTreeWidget& table, const QString& name) {
  for (int i = 0; i < table.topLevelItemCount(); ++i)
    if (table.topLevelItem(i)->text(0) == name) return table.topLevelItem(i);
  return nullptr;
}

}  // namespace corvane::ui
