// Each subcommand declares its options on the command line and registers the function that
// runs it once parsing succeeded. The function returns the process exit status.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace corvane {

class CommandRegistry {
 public:
  using Runner = std::function<int()>;
  void add(CLI::App* subcommand, Runner runner) { commands_.emplace_back(subcommand, std::move(runner)); }
  // Runs the subcommand the user chose; absent when none was.
  std::optional<int> runChosen() const {
    for (const auto& [subcommand, runner] : commands_) {
      if (subcommand->parsed()) return runner();
    }
    return std::nullopt;
  }

 private:
  std::vector<std::pair<CLI::App*, Runner>> commands_;
};

void addScanCommand(CLI::App& app, CommandRegistry& registry);
void addCheckCommand(CLI::App& app, CommandRegistry& registry);
void addLanguageCommand(CLI::App& app, CommandRegistry& registry);
void addCleanCommand(CLI::App& app, CommandRegistry& registry);
void addMigrateCommand(CLI::App& app, CommandRegistry& registry);
void addListCommand(CLI::App& app, CommandRegistry& registry);
void addBackCommand(CLI::App& app, CommandRegistry& registry);
void addRestoreCommand(CLI::App& app, CommandRegistry& registry);
void addUninstallCommand(CLI::App& app, CommandRegistry& registry);
void addDisksCommand(CLI::App& app, CommandRegistry& registry);
void addDoctorCommand(CLI::App& app, CommandRegistry& registry);

}  // namespace corvane
