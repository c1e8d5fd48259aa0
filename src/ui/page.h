// One screen of the main window: it renders what its managers publish and re-renders every
// text when the language changes.
#pragma once

#include <QWidget>
#include <atomic>
#include <memory>

#include "catalogue/app_manager.h"
#include "cleaner/dev_cleaner_manager.h"
#include "disks/disk_doctor.h"
#include "disks/disk_manager.h"
#include "engine/migration_candidates.h"
#include "engine/migration_manager.h"
#include "ui/background_runner.h"
#include "ui/gui_prompter.h"

namespace corvane::ui {

// The long-lived objects every screen works with; owned by the main window.
struct UiServices {
  MainQueue& queue;
  BackgroundRunner& background;
  GuiPrompter& prompter;
  AppManager& apps;
  MigrationManager& migration;
  DiskManager& disks;
  DevCleanerManager& cleaner;
  MigrationCandidates& candidates;
  const DiskDoctor& doctor;
  std::atomic<bool>& cancelRequested;
};

class Page : public QWidget {
 public:
  explicit Page(UiServices& services) : services_(services) {}
  // The key of the page's name in the sidebar.
  virtual const char* titleKey() const = 0;
  virtual void retranslate() = 0;

 protected:
  // Background results are delivered only while the page lives.
  std::weak_ptr<void> lifetime() const { return alive_; }

  UiServices& services_;

 private:
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace corvane::ui
