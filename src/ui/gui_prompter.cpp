#include "ui/gui_prompter.h"

#include "engine/preflight/migration_preflight.h"
#include "engine/running_program_closer.h"
#include "ui/question_dialog.h"
#include "ui/ui_text.h"

namespace corvane::ui {

struct GuiPrompter::State {
  std::mutex mutex;
  std::condition_variable answered;
  bool closed = false;
  std::uint64_t lastId = 0;
  std::map<std::uint64_t, int> answers;
  // Transfers run side by side; one question at a time keeps the dialogs readable.
  std::mutex oneQuestion;
};

GuiPrompter::GuiPrompter(MainQueue& queue, QWidget* window)
    : queue_(queue), window_(window), state_(std::make_shared<State>()) {}

GuiPrompter::~GuiPrompter() { shutDown(); }

void GuiPrompter::shutDown() {
  {
    std::lock_guard lock(state_->mutex);
    state_->closed = true;
  }
  state_->answered.notify_all();
}

int GuiPrompter::askAndWait(const MigrationPreflightQuestion& question, int fallback) {
  std::lock_guard one(state_->oneQuestion);
  std::uint64_t id = 0;
  {
    std::lock_guard lock(state_->mutex);
    if (state_->closed) return fallback;
    id = ++state_->lastId;
  }
  Question shown{qstr(question.title), qstr(question.message), {}};
  for (const auto& button : question.buttons) shown.buttons.append(qstr(button));
  queue_.post([state = state_, window = window_, shown, id, fallback] {
    auto deliver = [state, id](int answer) {
      {
        std::lock_guard lock(state->mutex);
        state->answers[id] = answer;
      }
      state->answered.notify_all();
    };
    if (!window) return deliver(fallback);
    ask(window, shown, deliver);
  });
  std::unique_lock lock(state_->mutex);
  state_->answered.wait(lock, [&] { return state_->closed || state_->answers.count(id) > 0; });
  if (auto found = state_->answers.find(id); found != state_->answers.end()) {
    const int answer = found->second;
    state_->answers.erase(found);
    return answer;
  }
  return fallback;
}

MigrationPreflightChoice GuiPrompter::choose(const std::vector<MigrationRuntimeBlocker>& blockers) {
  const auto choices = MigrationPreflight::choices(blockers);
  const int later = static_cast<int>(choices.size()) - 1;
  const int answer = askAndWait(MigrationPreflight::question(blockers), later);
  return choices[static_cast<std::size_t>(answer >= 0 && answer <= later ? answer : later)];
}

bool GuiPrompter::authorize(const std::string& path) {
  return askAndWait(MigrationPreflight::authorizationQuestion(path), 1) == 0;
}

void GuiPrompter::alert(const std::string& title, const std::string& message) {
  askAndWait({title, message, {localized("ui.ok")}}, 0);
}

bool GuiPrompter::closeRunningApp(const std::string& path, const std::string& name, const std::vector<pid_t>& running) {
  std::string pids;
  for (pid_t pid : running) pids += (pids.empty() ? "" : ", ") + std::to_string(pid);
  const MigrationPreflightQuestion question{localized("ui.running.title"),
                                            localizedFormat("ui.running.message", name, pids),
                                            {localized("ui.running.quit"), localized("ui.cancel")}};
  if (askAndWait(question, 1) != 0) return false;
  return closeRunningPrograms(path, running);
}

}  // namespace corvane::ui
