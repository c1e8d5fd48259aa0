#include "app/global_options.h"

#include <string_view>

#include "app/command_line.h"
#include "app/user_output.h"
#include "settings/language_names.h"
#include "settings/localization.h"
#include "settings/localization_manager.h"
#include "support/diagnostic_log.h"

namespace corvane {

EarlyGlobalOptions scanEarlyGlobalOptions(int argc, const char* const* argv) {
  EarlyGlobalOptions options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument == "--lang") {
      if (i + 1 < argc) options.language = argv[++i];
    } else if (argument.substr(0, 7) == "--lang=") {
      options.language = std::string(argument.substr(7));
    } else if (argument == "-v" || argument == "--verbose") {
      options.verbose = true;
    } else if (argument.empty() || argument.front() != '-' || argument == "--") {
      break;  // the command name: what follows belongs to it
    }
  }
  return options;
}

std::optional<int> applyEarlyGlobalOptions(int argc, const char* const* argv) {
  const auto options = scanEarlyGlobalOptions(argc, argv);
  if (options.verbose) setDiagnosticVerbosity(LogLevel::debug);
  if (!options.language) return std::nullopt;
  const auto language = parseLanguage(*options.language);
  if (!language) {
    printErrorLine(localizedFormat("cli.language.invalid", *options.language, languageChoicesText()));
    return kExitUsage;
  }
  LocalizationManager::shared().useLanguageForThisRun(*language);
  return std::nullopt;
}

void addLanguageOption(CLI::App& app) {
  app.add_option_function<std::string>(
         "--lang", [](const std::string&) {}, localized("cli.option.lang"))
      ->type_name(localized("cli.help.language_code"));
}

}  // namespace corvane
