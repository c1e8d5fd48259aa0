// `corvane check PATH...`: whether each item could be moved right now, and what blocks it; for
// an item already moved, whether its copy could be moved back. The engine's inspection changes
// nothing: nothing is stopped, nothing is asked.
#include <memory>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/migrated_item_lookup.h"
#include "app/outcome_report.h"
#include "app/user_output.h"
#include "engine/migration_item_inspector.h"
#include "settings/localization.h"

namespace corvane {
namespace {

struct CheckOptions {
  std::vector<std::string> paths;
  bool json = false;
};

void printIndented(const std::string& text) {
  std::size_t start = 0;
  while (start <= text.size()) {
    auto end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    printLine("  " + text.substr(start, end - start));
    start = end + 1;
  }
}

// A link with a record behind it is a migrated item: what `back` or `restore` would work on,
// and what programs hold open, is its copy on the external disk.
std::optional<std::string> migratedCopyOf(const std::string& link) {
  try {
    return findMigratedItem(link, std::nullopt).app.targetPath;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::string_view verdictName(MigrationItemInspector::Readiness::Verdict verdict) {
  using Verdict = MigrationItemInspector::Readiness::Verdict;
  switch (verdict) {
    case Verdict::movable:
      return "movable";
    case Verdict::blocked:
      return "blocked";
    case Verdict::notFound:
      return "notFound";
    case Verdict::symbolicLink:
      break;
  }
  return "symbolicLink";
}

std::string joinedLines(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += (text.empty() ? "" : "\n") + line;
  return text;
}

int runCheck(const CheckOptions& options) {
  using Verdict = MigrationItemInspector::Readiness::Verdict;
  const MigrationItemInspector inspector;
  bool anyBlocked = false;
  bool anyError = false;
  std::vector<OutcomeReport> reports;
  for (auto item : inspector.checkItems(options.paths)) {
    OutcomeReport report{.source = item.path};
    if (item.verdict == Verdict::symbolicLink) {
      if (const auto copy = migratedCopyOf(item.path)) {
        if (!options.json) printLine(localizedFormat("cli.check.migrated_copy", item.path, *copy));
        report.target = *copy;
        item = inspector.checkItems({*copy}).front();
      }
    }
    report.outcome = verdictName(item.verdict);
    switch (item.verdict) {
      case Verdict::notFound:
        report.message = localizedWithDetail("error.item_not_found", item.path);
        anyError = true;
        break;
      case Verdict::symbolicLink:
        report.message = localizedWithDetail("cli.check.symbolic_link", item.path);
        anyError = true;
        break;
      case Verdict::movable:
      case Verdict::blocked:
        report.message = joinedLines(item.blockingMessages);
        anyBlocked = anyBlocked || item.verdict == Verdict::blocked;
        break;
    }
    if (options.json) {
      reports.push_back(report);
      continue;
    }
    if (item.verdict == Verdict::notFound || item.verdict == Verdict::symbolicLink) {
      printErrorLine(report.message);
      continue;
    }
    printLine(localizedFormat("cli.check.item", item.path));
    for (const auto& socket : item.inactiveSockets) printIndented(localizedFormat("cli.check.inactive_socket", socket));
    for (const auto& message : item.blockingMessages) printIndented(message);
    printLine(localized(item.verdict == Verdict::blocked ? "cli.check.blocked" : "cli.check.movable"));
  }
  if (options.json) printOutcomeReports(reports);
  if (anyError) return kExitFailure;
  return anyBlocked ? kExitBlocked : kExitSuccess;
}

}  // namespace

void addCheckCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<CheckOptions>();
  CLI::App* check = app.add_subcommand("check", localized("cli.check.description"));
  check->add_option("path", options->paths, localized("cli.check.path"))->required();
  check->add_flag("--json", options->json, localized("cli.option.json"));
  registry.add(check, [options] { return runCheck(*options); });
}

}  // namespace corvane
