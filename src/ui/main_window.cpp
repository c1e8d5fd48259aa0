#include "ui/main_window.h"

#include <QCloseEvent>
#include <QHBoxLayout>

#include "settings/localization_manager.h"
#include "ui/about_page.h"
#include "ui/cleaner_page.h"
#include "ui/disks_page.h"
#include "ui/items_page.h"
#include "ui/log_page.h"
#include "ui/migrated_page.h"
#include "ui/question_dialog.h"
#include "ui/repairs_page.h"
#include "ui/settings_page.h"
#include "ui/ui_text.h"

namespace corvane::ui {

MainWindow::Configuration MainWindow::Configuration::forThisSystem() {
  Configuration configuration;
  configuration.disks = DiskManager::Configuration::forThisSystem();
  configuration.cleaner = DevCleanerManager::Configuration::forCurrentUser();
  configuration.candidates = MigrationCandidates::Configuration::forThisSystem();
  configuration.doctor = DiskDoctor::Configuration::forThisSystem();
  return configuration;
}

MainWindow::MainWindow(Configuration configuration) {
  background_ = std::make_unique<BackgroundRunner>(queue_);
  prompter_ = std::make_unique<GuiPrompter>(queue_, this);
  apps_ = std::make_unique<AppManager>(queue_);
  MigrationManager::Hooks hooks;
  hooks.prompter = prompter_.get();
  hooks.cancelled = &cancelRequested_;
  hooks.closeRunningApp = [prompter = prompter_.get()](const std::string& path, const std::string& name,
                                                       const std::vector<pid_t>& running) {
    return prompter->closeRunningApp(path, name, running);
  };
  migration_ = std::make_unique<MigrationManager>(queue_, *apps_, hooks);
  FstabManager& fstab = configuration.fstab ? *configuration.fstab : FstabManager::shared();
  disks_ = std::make_unique<DiskManager>(queue_, fstab, std::move(configuration.disks));
  cleaner_ = std::make_unique<DevCleanerManager>(queue_, std::move(configuration.cleaner));
  candidates_ = std::make_unique<MigrationCandidates>(queue_, std::move(configuration.candidates));
  doctor_ = std::make_unique<DiskDoctor>(std::move(configuration.doctor));
  services_.reset(new UiServices{queue_, *background_, *prompter_, *apps_, *migration_, *disks_, *cleaner_,
                                 *candidates_, *doctor_, cancelRequested_});

  auto* central = new QWidget(this);
  auto* layout = new QHBoxLayout(central);
  sidebar_ = new QListWidget(central);
  sidebar_->setObjectName("sidebar");
  sidebar_->setFixedWidth(170);
  stack_ = new QStackedWidget(central);
  layout->addWidget(sidebar_);
  layout->addWidget(stack_, 1);
  setCentralWidget(central);
  pages_ = {new ItemsPage(*services_),    new DisksPage(*services_), new MigratedPage(*services_),
            new RepairsPage(*services_),  new LogPage(*services_),   new CleanerPage(*services_),
            new SettingsPage(*services_), new AboutPage(*services_)};
  for (Page* page : pages_) {
    stack_->addWidget(page);
    sidebar_->addItem(QString());
  }
  QObject::connect(sidebar_, &QListWidget::currentRowChanged, stack_, &QStackedWidget::setCurrentIndex);
  sidebar_->setCurrentRow(0);
  language_ = LocalizationManager::shared().observe([this](Language) { retranslate(); });
  retranslate();
  resize(1080, 700);
  candidates_->refresh();
}

MainWindow::~MainWindow() {
  // Background threads waiting for an answer get the cautious one, then the pages (and their
  // subscriptions) go before the managers they observe, and the managers' threads are joined
  // while the queue they post to still exists.
  prompter_->shutDown();
  language_.reset();
  delete takeCentralWidget();
  candidates_.reset();
  cleaner_.reset();
  disks_.reset();
  migration_.reset();
  apps_.reset();
  background_.reset();
}

void MainWindow::showPage(std::size_t index) { sidebar_->setCurrentRow(static_cast<int>(index)); }

void MainWindow::retranslate() {
  setWindowTitle(text("app.title"));
  for (std::size_t i = 0; i < pages_.size(); ++i) {
    sidebar_->item(static_cast<int>(i))->setText(text(pages_[i]->titleKey()));
    pages_[i]->retranslate();
  }
}

void MainWindow::closeEvent(QCloseEvent* event) {
  if (migration_->isMigrating() || !migration_->migratingBackItems().empty()) {
    tell(this, text("migration.safety.busy_title"), text("migration.safety.busy_message"));
    event->ignore();
    return;
  }
  event->accept();
}

}  // namespace corvane::ui
