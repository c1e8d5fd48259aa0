// The main window: creates the long-lived managers, drives their main queue from the Qt event
// loop, and shows one page per job in a sidebar. Every visible text follows the language at once;
// quitting is refused while items are being moved.
#pragma once

#include <QListWidget>
#include <QMainWindow>
#include <QStackedWidget>
#include <atomic>
#include <memory>
#include <vector>

#include "ui/page.h"
#include "ui/qt_main_queue.h"

namespace corvane::ui {

class MainWindow : public QMainWindow {
 public:
  struct Configuration {
    FstabManager* fstab = nullptr;  // the program's shared instance when absent
    DiskManager::Configuration disks;
    DevCleanerManager::Configuration cleaner;
    MigrationCandidates::Configuration candidates;
    DiskDoctor::Configuration doctor;
    // This system's disks, file table, home folder and application folders.
    static Configuration forThisSystem();
  };

  explicit MainWindow(Configuration configuration);
  ~MainWindow() override;

  const std::vector<Page*>& pages() const { return pages_; }
  void showPage(std::size_t index);
  UiServices& services() { return *services_; }

 protected:
  void closeEvent(QCloseEvent* event) override;

 private:
  void retranslate();

  MainQueue queue_;
  QtMainQueueDriver driver_{queue_};
  std::unique_ptr<BackgroundRunner> background_;
  std::unique_ptr<GuiPrompter> prompter_;
  std::atomic<bool> cancelRequested_{false};
  std::unique_ptr<AppManager> apps_;
  std::unique_ptr<MigrationManager> migration_;
  std::unique_ptr<DiskManager> disks_;
  std::unique_ptr<DevCleanerManager> cleaner_;
  std::unique_ptr<MigrationCandidates> candidates_;
  std::unique_ptr<DiskDoctor> doctor_;
  std::unique_ptr<UiServices> services_;
  QListWidget* sidebar_ = nullptr;
  QStackedWidget* stack_ = nullptr;
  std::vector<Page*> pages_;
  Subscription language_;
};

}  // namespace corvane::ui
