// `corvane language [en|zh-Hans|zh-Hant|system]`: shows the saved language and the one in use,
// or saves a new choice.
#include <memory>
#include <string>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/user_output.h"
#include "platform/user_defaults.h"
#include "settings/language_names.h"
#include "settings/localization.h"
#include "settings/localization_manager.h"

namespace corvane {
namespace {

void printLanguageInUse(const LocalizationManager& manager) {
  const std::string inUse = languageCodeDisplayName(manager.languageCode());
  if (manager.currentLanguage() != manager.savedLanguage()) {
    printLine(localizedFormat("cli.language.in_use_this_run", inUse));
  } else {
    printLine(localizedFormat("cli.language.in_use", inUse));
  }
}

int showLanguage() {
  auto& manager = LocalizationManager::shared();
  printLine(localizedFormat("cli.language.setting", languageDisplayName(manager.savedLanguage())));
  printLanguageInUse(manager);
  return kExitSuccess;
}

int changeLanguage(const std::string& value) {
  const auto language = parseLanguage(value);
  if (!language) {
    printErrorLine(localizedFormat("cli.language.invalid", value, languageChoicesText()));
    return kExitUsage;
  }
  auto& manager = LocalizationManager::shared();
  if (!manager.setCurrentLanguage(*language)) {
    printErrorLine(localizedFormat("cli.language.not_saved", platform::userDefaultsLocation()));
    return kExitFailure;
  }
  // Confirmed in the newly chosen language.
  if (*language == Language::system) {
    printLine(localized("cli.language.changed_to_system"));
    printLanguageInUse(manager);
  } else {
    printLine(localizedFormat("cli.language.changed", languageDisplayName(*language)));
  }
  return kExitSuccess;
}

}  // namespace

void addLanguageCommand(CLI::App& app, CommandRegistry& registry) {
  auto value = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand("language", localized("cli.language.description"));
  CLI::Option* choice = command->add_option("language", *value, localized("cli.language.value"))
                            ->type_name(localized("cli.help.language_code"));
  registry.add(command, [value, choice] { return choice->count() == 0 ? showLanguage() : changeLanguage(*value); });
}

}  // namespace corvane
