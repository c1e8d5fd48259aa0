// A main window over real things for the desktop application's tests: loop disks mounted below
// a temporary volumes root, a temporary file table, a runner in the place of the administrator
// dialog, a temporary home and application folder; and the few ways a test acts as a user
// (tick, click, answer the open question) and waits for what the window shows.
#pragma once

#include <QAbstractButton>
#include <QTreeWidget>
#include <functional>
#include <memory>
#include <string>

#include "disks/fstab_manager.h"
#include "fixtures/shell_administrator_runner.h"
#include "fixtures/temporary_directory.h"
#include "ui/main_window.h"

namespace corvane::ui {

class WindowWorld {
 public:
  WindowWorld();
  ~WindowWorld();

  std::string volumesRoot() const { return work_.child("Volumes"); }
  std::string volume(const std::string& name) const { return volumesRoot() + "/" + name; }
  std::string applications() const { return work_.child("apps"); }
  std::string home() const { return work_.child("home"); }

  MainWindow& openWindow();
  MainWindow& window() { return *window_; }
  void closeWindow() { window_.reset(); }

  ShellAdministratorRunner& runner() { return *runner_; }

 private:
  TemporaryDirectory work_;
  std::shared_ptr<ShellAdministratorRunner> runner_ = std::make_shared<ShellAdministratorRunner>();
  std::unique_ptr<FstabManager> fstab_;
  std::unique_ptr<MainWindow> window_;
};

// Runs the event loop until `condition` holds; false when it never did within a generous bound
// (a hung operation fails the test instead of hanging the suite).
bool waitFor(const std::function<bool()>& condition);

template <typename Widget>
Widget* child(QWidget& parent, const char* name) {
  return parent.findChild<Widget*>(name);
}
// Clicks the enabled button `name` of `parent`; false when there is none.
bool click(QWidget& parent, const char* name);
// Waits for the open question and clicks its button `index`; false when none came. `text`
// receives what the question said; `tickOption` ticks its check box first (false when it has none).
bool answer(int index, QString* text = nullptr, bool tickOption = false);
// The top-level row whose first column reads `name`.
QTreeWidgetItem* row(QTreeWidget& table, const QString& name);

}  // namespace corvane::ui
