// `corvane clean`: finds caches and other rebuildable data, shows them by category, and removes
// the chosen ones after confirmation (or at once with --yes), reporting what was reclaimed.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/user_output.h"
#include "cleaner/dev_cleaner_manager.h"
#include "settings/byte_format.h"
#include "settings/localization.h"
#include "support/main_queue.h"

namespace corvane {
namespace {

struct CleanOptions {
  bool allSafe = false;
  std::vector<std::string> select;
  bool yes = false;
  bool dryRun = false;
  bool json = false;

  bool wantsCleaning() const { return allSafe || !select.empty() || yes; }
  bool choosesItems() const { return allSafe || !select.empty(); }
};

// Scans and cleans can take as long as the disk needs; this only keeps a wedged run from
// hanging a script forever.
constexpr auto kRunLimit = std::chrono::hours(24);

bool waitForState(MainQueue& queue, const DevCleanerManager& manager, CleanerState state) {
  return queue.runUntil([&] { return manager.currentState() == state; }, kRunLimit);
}

nlohmann::ordered_json itemJson(const CleanItem& item) {
  nlohmann::ordered_json json;
  json["id"] = item.id;
  json["category"] = categoryDisplayString(item.category);
  json["name"] = item.name;
  json["descriptionKey"] = item.descriptionKey;
  json["riskLevel"] = riskName(item.riskLevel);
  json["paths"] = item.paths;
  json["sizeBytes"] = item.sizeBytes;
  json["isSelected"] = item.isSelected;
  json["status"] = statusName(item.status.kind);
  if (item.status.failure) json["message"] = item.status.failure->message();
  return json;
}

void printJson(const DevCleanerManager& manager, const CleanOptions& options) {
  nlohmann::ordered_json json;
  json["state"] = stateName(manager.currentState());
  json["dryRun"] = options.dryRun;
  json["items"] = nlohmann::ordered_json::array();
  for (const auto& item : manager.items()) json["items"].push_back(itemJson(item));
  json["totalScannedSize"] = manager.totalScannedSize();
  json["selectedSize"] = manager.selectedSize();
  json["totalCleanedSize"] = manager.totalCleanedSize();
  printLine(json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

std::string riskText(CleanRiskLevel risk) {
  return localized(risk == CleanRiskLevel::safe ? "cleaner.risk.safe" : "cleaner.risk.warning");
}

void printItems(const DevCleanerManager& manager) {
  std::optional<CleanCategoryType> category;
  for (const auto& item : manager.items()) {
    if (category != item.category) {
      category = item.category;
      printLine(localized(categoryTitleKey(item.category)));
    }
    printLine(localizedFormat("cli.clean.item", item.isSelected ? "[x]" : "[ ]", item.name,
                              formatByteCount(item.sizeBytes), riskText(item.riskLevel), item.id));
    if (item.riskLevel == CleanRiskLevel::warning) {
      printLine(localizedFormat("cli.clean.item_warning", localized("cleaner.warning.rebuild")));
    }
  }
  printLine(localizedFormat("cli.clean.total", formatByteCount(manager.totalScannedSize()), manager.items().size(),
                            formatByteCount(manager.selectedSize())));
}

void printDryRun(const DevCleanerManager& manager) {
  printLine(localized("cli.clean.dry_run_title"));
  for (const auto& item : manager.items()) {
    if (!item.isSelected) continue;
    printLine(localizedFormat("cli.clean.dry_run_item", item.name, formatByteCount(item.sizeBytes), item.id));
    for (const auto& path : item.paths) printLine(localizedFormat("cli.clean.dry_run_path", path));
    const auto& definitions = manager.definitions();
    const auto definition = std::find_if(definitions.begin(), definitions.end(),
                                         [&](const CleanerDefinition& each) { return each.id == item.id; });
    if (definition != definitions.end() && definition->isDocker()) {
      std::string command = *definition->customCommand;
      for (const auto& argument : definition->customArgs.value_or(std::vector<std::string>{}))
        command += " " + argument;
      printLine(localizedFormat("cli.clean.dry_run_command", command));
    }
  }
  printLine(
      localizedFormat("cli.clean.dry_run_total", formatByteCount(manager.selectedSize()), manager.selectedSize()));
}

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

bool confirmOnTerminal(const DevCleanerManager& manager, std::size_t count) {
  const std::string prompt = localizedFormat("cli.clean.confirm", count, formatByteCount(manager.selectedSize()));
  std::fputs(prompt.c_str(), stdout);
  std::fflush(stdout);
  std::string answer;
  if (!std::getline(std::cin, answer)) return false;
  answer = lowercase(answer);
  answer.erase(0, answer.find_first_not_of(" \t"));
  answer.erase(answer.find_last_not_of(" \t\r") + 1);
  // The accepted answers are part of the translation ("y,yes", "y,yes,是"...).
  std::string accepted = localized("cli.clean.confirm_answers");
  std::size_t start = 0;
  while (start <= accepted.size()) {
    const auto comma = accepted.find(',', start);
    const auto word = lowercase(accepted.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    if (!word.empty() && word == answer) return true;
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return false;
}

// Applies --all-safe / --select; false (after saying why) when an id names no definition.
bool applySelection(DevCleanerManager& manager, const CleanOptions& options) {
  std::string known;
  for (const auto& definition : manager.definitions()) known += (known.empty() ? "" : ", ") + definition.id;
  for (const auto& id : options.select) {
    const auto& definitions = manager.definitions();
    if (std::none_of(definitions.begin(), definitions.end(),
                     [&](const CleanerDefinition& each) { return each.id == id; })) {
      printErrorLine(localizedFormat("cli.clean.unknown_item", id, known));
      return false;
    }
  }
  if (!options.choosesItems()) return true;  // --yes alone keeps the preselection
  const std::set<std::string> chosen(options.select.begin(), options.select.end());
  for (const auto& item : std::vector<CleanItem>(manager.items())) {
    const bool wanted = (options.allSafe && item.riskLevel == CleanRiskLevel::safe) || chosen.count(item.id) > 0;
    manager.setItemSelection(item.id, wanted ? ItemSelection::selected : ItemSelection::unselected);
  }
  if (!options.json) {
    for (const auto& id : options.select) {
      const auto& items = manager.items();
      if (std::none_of(items.begin(), items.end(), [&](const CleanItem& item) { return item.id == id; })) {
        printLine(localizedFormat("cli.clean.not_found", id));
      }
    }
  }
  return true;
}

int runClean(const CleanOptions& options) {
  MainQueue queue;
  DevCleanerManager manager(queue, DevCleanerManager::Configuration::forCurrentUser());
  if (!options.json) printLine(localized("cli.clean.scanning"));
  manager.startScanning();
  if (!waitForState(queue, manager, CleanerState::resultsReady)) return kExitFailure;
  if (!applySelection(manager, options)) return kExitUsage;

  if (!options.wantsCleaning() && !options.dryRun) {
    if (options.json) {
      printJson(manager, options);
    } else if (manager.items().empty()) {
      printLine(localized("cli.clean.nothing_found"));
    } else {
      printItems(manager);
      printLine(localized("cli.clean.hint"));
    }
    return kExitSuccess;
  }
  if (options.dryRun) {
    options.json ? printJson(manager, options) : printDryRun(manager);
    return kExitSuccess;
  }

  const auto& items = manager.items();
  const auto selectedCount = static_cast<std::size_t>(
      std::count_if(items.begin(), items.end(), [](const CleanItem& item) { return item.isSelected; }));
  if (selectedCount == 0) {
    options.json ? printJson(manager, options) : printLine(localized("cli.clean.nothing_selected"));
    return kExitSuccess;
  }
  if (!options.yes) {
    if (!::isatty(STDIN_FILENO)) {
      printErrorLine(localized("cli.clean.needs_yes"));
      return kExitUsage;
    }
    if (!options.json) printItems(manager);
    if (!confirmOnTerminal(manager, selectedCount)) {
      printLine(localized("cli.clean.declined"));
      return kExitSuccess;
    }
  }

  // Progress: each item is reported as soon as its result arrives.
  std::set<std::string> reported;
  const Subscription itemLines = manager.observe([&](DevCleanerChange change) {
    if (change != DevCleanerChange::items || options.json) return;
    for (const auto& item : manager.items()) {
      if (item.status.kind == CleanItemStatus::Kind::pending || !reported.insert(item.id).second) continue;
      if (item.status.failure) {
        printLine(localizedFormat("cli.clean.item_failed", item.name, item.status.failure->message()));
      } else {
        printLine(localizedFormat("cli.clean.item_done", item.name, formatByteCount(item.sizeBytes)));
      }
    }
  });
  if (!options.json) {
    printLine(localizedFormat("cli.clean.cleaning", selectedCount, formatByteCount(manager.selectedSize())));
  }
  manager.startCleaning();
  if (!waitForState(queue, manager, CleanerState::done)) return kExitFailure;

  const auto failed = std::count_if(items.begin(), items.end(), [](const CleanItem& item) {
    return item.status.kind == CleanItemStatus::Kind::failed;
  });
  if (options.json) {
    printJson(manager, options);
  } else {
    printLine(localizedFormat("cli.clean.reclaimed", formatByteCount(manager.totalCleanedSize()),
                              manager.totalCleanedSize()));
    if (failed > 0) printErrorLine(localizedFormat("cli.clean.some_failed", failed));
  }
  return failed > 0 ? kExitFailure : kExitSuccess;
}

}  // namespace

void addCleanCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<CleanOptions>();
  CLI::App* clean = app.add_subcommand("clean", localized("cli.clean.description"));
  clean->add_flag("--all-safe", options->allSafe, localized("cli.clean.option.all_safe"));
  clean->add_option("--select", options->select, localized("cli.clean.option.select"))->delimiter(',');
  clean->add_flag("-y,--yes", options->yes, localized("cli.clean.option.yes"));
  clean->add_flag("--dry-run", options->dryRun, localized("cli.clean.option.dry_run"));
  clean->add_flag("--json", options->json, localized("cli.option.json"));
  registry.add(clean, [options] { return runClean(*options); });
}

}  // namespace corvane
