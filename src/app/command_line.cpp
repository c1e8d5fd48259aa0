#include "app/command_line.h"

#include <CLI/CLI.hpp>

#include "app/commands.h"
#include "app/global_options.h"
#include "app/localized_cli.h"
#include "app/user_output.h"
#include "engine/headless_modes.h"
#include "settings/localization.h"
#include "support/diagnostic_log.h"

namespace corvane {

int runCommandLine(int argc, char** argv) {
  if (auto status = runHeadlessMode(argc, argv)) return *status;
  // --lang must be in force before the first text (the help included) is looked up.
  if (auto status = applyEarlyGlobalOptions(argc, argv)) return *status;

  CLI::App app{localized("app.cli.description"), "corvane"};
  localizeParserTexts(app);
  app.require_subcommand(1);
  app.set_version_flag("--version", CORVANE_VERSION, localized("cli.option.version"));
  bool verbose = false;
  app.add_flag("-v,--verbose", verbose, localized("cli.option.verbose"));
  addLanguageOption(app);

  CommandRegistry registry;
  addScanCommand(app, registry);
  addCheckCommand(app, registry);
  addLanguageCommand(app, registry);
  addCleanCommand(app, registry);
  addMigrateCommand(app, registry);
  addListCommand(app, registry);
  addBackCommand(app, registry);
  addRestoreCommand(app, registry);
  addUninstallCommand(app, registry);
  addDisksCommand(app, registry);
  addDoctorCommand(app, registry);
  // After every subcommand is registered.
  localizeSubcommandTexts(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? kExitSuccess : kExitUsage;
  }
  setDiagnosticVerbosity(verbose ? LogLevel::debug : LogLevel::error);
  try {
    return registry.runChosen().value_or(kExitUsage);
  } catch (const std::exception& failure) {
    return reportFailure(failure);
  }
}

}  // namespace corvane
