// The engine's questions as dialogs of the main window: the transfer's background thread asks
// and waits, the question is shown on the GUI thread without blocking it, and the answer goes
// back. Once the window closes, every waiting and later question gets the cautious answer
// (later, no, keep running) so no background work waits for a window that is gone.
#pragma once

#include <sys/types.h>

#include <QPointer>
#include <QWidget>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/preflight/migration_preflight_prompter.h"
#include "support/main_queue.h"

namespace corvane::ui {

class GuiPrompter : public MigrationPreflightPrompter {
 public:
  // `queue` is the GUI thread's MainQueue; the dialogs belong to `window`.
  GuiPrompter(MainQueue& queue, QWidget* window);
  ~GuiPrompter() override;

  MigrationPreflightChoice choose(const std::vector<MigrationRuntimeBlocker>& blockers) override;
  bool authorize(const std::string& path) override;
  void alert(const std::string& title, const std::string& message) override;
  // Programs inside an item run: lists them, and quits them only when the user agrees. True
  // when nothing inside the item runs any more.
  bool closeRunningApp(const std::string& path, const std::string& name, const std::vector<pid_t>& running);

  // GUI thread: answers everything cautiously from now on.
  void shutDown();

 private:
  struct State;
  // Any thread but the GUI thread: the index of the button chosen, `fallback` after shutDown.
  int askAndWait(const MigrationPreflightQuestion& question, int fallback);

  MainQueue& queue_;
  QPointer<QWidget> window_;
  std::shared_ptr<State> state_;
};

}  // namespace corvane::ui
