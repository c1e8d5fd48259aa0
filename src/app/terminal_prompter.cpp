#include "app/terminal_prompter.h"

#include <unistd.h>

#include <charconv>

#include "engine/preflight/migration_preflight.h"
#include "settings/localization.h"

namespace corvane {

void addPromptOptions(CLI::App* command, PromptOptions& options) {
  auto* yes = command->add_flag("--yes", options.yes, localized("cli.option.yes"));
  auto* defer = command->add_flag("--defer", options.defer, localized("cli.option.defer"));
  yes->excludes(defer);
}

TerminalPrompter::TerminalPrompter(PresetAnswer preset, Terminal terminal, std::FILE* input, std::FILE* output)
    : preset_(preset), terminal_(terminal), input_(input), output_(output) {}

std::unique_ptr<TerminalPrompter> TerminalPrompter::onStandardStreams(PresetAnswer preset) {
  const Terminal terminal = isatty(STDIN_FILENO) ? Terminal::present : Terminal::absent;
  return std::make_unique<TerminalPrompter>(preset, terminal, stdin, stderr);
}

void TerminalPrompter::print(const std::string& text) {
  std::fputs(text.c_str(), output_);
  std::fputc('\n', output_);
  std::fflush(output_);
}

void TerminalPrompter::show(const MigrationPreflightQuestion& question) {
  print(question.title);
  print(question.message);
  for (std::size_t index = 0; index < question.buttons.size(); ++index) {
    print(localizedFormat("cli.prompt.button", index + 1, question.buttons[index]));
  }
}

void TerminalPrompter::explainNoTerminal() {
  if (explainedNoTerminal_) return;
  explainedNoTerminal_ = true;
  print(localized("cli.prompt.no_terminal"));
}

std::size_t TerminalPrompter::ask(const MigrationPreflightQuestion& question, std::size_t fallback) {
  show(question);
  const std::size_t count = question.buttons.size();
  for (int attempt = 0; attempt < 5; ++attempt) {
    std::fputs(localizedFormat("cli.prompt.choice", count).c_str(), output_);
    std::fputc(' ', output_);
    std::fflush(output_);
    char line[256];
    if (!std::fgets(line, sizeof line, input_)) {
      print("");
      return fallback;
    }
    std::string_view answer(line);
    while (!answer.empty() && (answer.back() == '\n' || answer.back() == '\r' || answer.back() == ' '))
      answer.remove_suffix(1);
    while (!answer.empty() && answer.front() == ' ') answer.remove_prefix(1);
    std::size_t number = 0;
    auto [end, error] = std::from_chars(answer.data(), answer.data() + answer.size(), number);
    if (error == std::errc() && end == answer.data() + answer.size() && number >= 1 && number <= count)
      return number - 1;
    print(localizedFormat("cli.prompt.invalid", count));
  }
  return fallback;
}

std::size_t TerminalPrompter::askChoice(const MigrationPreflightQuestion& question, std::size_t fallback) {
  std::lock_guard lock(mutex_);
  if (terminal_ == Terminal::absent) return fallback;
  return ask(question, fallback);
}

MigrationPreflightChoice TerminalPrompter::choose(const std::vector<MigrationRuntimeBlocker>& blockers) {
  std::lock_guard lock(mutex_);
  const auto question = MigrationPreflight::question(blockers);
  const auto choices = MigrationPreflight::choices(blockers);
  const std::size_t later = choices.size() - 1;
  if (preset_ == PresetAnswer::none && terminal_ == Terminal::present) return choices[ask(question, later)];
  show(question);
  if (preset_ == PresetAnswer::none) {
    explainNoTerminal();
    return MigrationPreflightChoice::later;
  }
  if (preset_ == PresetAnswer::defer) {
    print(localizedFormat("cli.prompt.answered", question.buttons[later]));
    return MigrationPreflightChoice::later;
  }
  if (answeredFor_ && *answeredFor_ == blockers) {
    print(localized("cli.prompt.still_blocked"));
    return MigrationPreflightChoice::later;
  }
  // Yes: stop the git monitors when there are any, otherwise look once more.
  answeredFor_ = blockers;
  print(localizedFormat("cli.prompt.answered", question.buttons[0]));
  return choices[0];
}

bool TerminalPrompter::authorize(const std::string& path) {
  std::lock_guard lock(mutex_);
  const auto question = MigrationPreflight::authorizationQuestion(path);
  if (preset_ == PresetAnswer::none && terminal_ == Terminal::present) return ask(question, 1) == 0;
  show(question);
  if (preset_ == PresetAnswer::none) {
    explainNoTerminal();
    return false;
  }
  const bool yes = preset_ == PresetAnswer::yes;
  print(localizedFormat("cli.prompt.answered", question.buttons[yes ? 0 : 1]));
  return yes;
}

void TerminalPrompter::alert(const std::string& title, const std::string& message) {
  std::lock_guard lock(mutex_);
  print(title);
  print(message);
}

}  // namespace corvane
