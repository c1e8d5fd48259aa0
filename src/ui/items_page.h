// The items to move: applications from this system's application folders and folders the user
// adds (chooser or drop), largest first, with size and running state; "Migrate" passes the
// protection gate, asks before quitting running programs, and starts the batch, whose progress
// shows in the panel below.
#pragma once

#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <set>
#include <string>
#include <vector>

#include "ui/page.h"
#include "ui/progress_panel.h"

namespace corvane::ui {

class ItemsPage : public Page {
 public:
  explicit ItemsPage(UiServices& services);
  const char* titleKey() const override { return "ui.page.items"; }
  void retranslate() override;

  // The chooser's and the drop's way in.
  void addFolder(const QString& path);

 protected:
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  void render();
  std::vector<std::string> checkedPaths() const;
  // What `corvane check` and `scan` tell: whether each ticked item could move now, and its size.
  void check();
  void migrate();
  void passProtectionGate(std::function<void()> start);
  void closeRunningThenStart(const std::vector<std::string>& paths);
  void start(const std::vector<std::string>& paths);

  QLabel* intro_;
  QLabel* destination_;
  QPushButton* add_;
  QPushButton* refresh_;
  QTreeWidget* table_;
  QLabel* measuring_;
  QPushButton* check_;
  QPushButton* migrate_;
  ProgressPanel* progress_;
  std::set<std::string> checked_;
  bool rendering_ = false;
  bool wasMigrating_ = false;
  Subscription candidates_;
  Subscription disks_;
  Subscription migration_;
};

}  // namespace corvane::ui
