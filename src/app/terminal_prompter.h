// The preflight's questions on the terminal: [stop] / retry / later about blockers, authorize /
// later about administrator rights. Without a terminal the answers come from --yes or --defer;
// with neither, items are left for later and the user is told why.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/preflight/migration_preflight_prompter.h"

namespace corvane {

// An answer given ahead of time on the command line.
enum class PresetAnswer { none, yes, defer };

struct PromptOptions {
  bool yes = false;
  bool defer = false;
  PresetAnswer preset() const { return yes ? PresetAnswer::yes : defer ? PresetAnswer::defer : PresetAnswer::none; }
};

// Declares --yes and --defer (which exclude each other) on a subcommand that may ask.
void addPromptOptions(CLI::App* command, PromptOptions& options);

class TerminalPrompter : public MigrationPreflightPrompter {
 public:
  enum class Terminal { present, absent };

  // Questions go to `output`, answers come from `input`. A preset answer is used even when a
  // terminal is present: the user gave it explicitly.
  TerminalPrompter(PresetAnswer preset, Terminal terminal, std::FILE* input, std::FILE* output);
  // Standard input and standard error; a terminal when standard input is one.
  static std::unique_ptr<TerminalPrompter> onStandardStreams(PresetAnswer preset);

  MigrationPreflightChoice choose(const std::vector<MigrationRuntimeBlocker>& blockers) override;
  bool authorize(const std::string& path) override;
  void alert(const std::string& title, const std::string& message) override;
  // Any other question: the chosen button's index, `fallback` without a terminal or an answer.
  std::size_t askChoice(const MigrationPreflightQuestion& question, std::size_t fallback);

 private:
  // Shows the question and returns the chosen button's index; `fallback` on end of input.
  std::size_t ask(const MigrationPreflightQuestion& question, std::size_t fallback);
  void show(const MigrationPreflightQuestion& question);
  void print(const std::string& text);
  void explainNoTerminal();

  PresetAnswer preset_;
  Terminal terminal_;
  std::FILE* input_;
  std::FILE* output_;
  std::mutex mutex_;  // transfers run side by side; one question at a time
  bool explainedNoTerminal_ = false;
  // The blockers a preset "yes" already answered: seeing them again means stopping or looking
  // again did not help, and asking forever would never end.
  std::optional<std::vector<MigrationRuntimeBlocker>> answeredFor_;
};

}  // namespace corvane
