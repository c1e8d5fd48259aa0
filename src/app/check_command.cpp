// `corvane check PATH...`: whether each item could be moved right now, and what blocks it. The
// engine's inspection changes nothing: nothing is stopped, nothing is asked.
#include <memory>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/user_output.h"
#include "engine/migration_item_inspector.h"
#include "settings/localization.h"

namespace corvane {
namespace {

struct CheckOptions {
  std::vector<std::string> paths;
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

int runCheck(const CheckOptions& options) {
  using Verdict = MigrationItemInspector::Readiness::Verdict;
  bool anyBlocked = false;
  bool anyError = false;
  for (const auto& item : MigrationItemInspector().checkItems(options.paths)) {
    switch (item.verdict) {
      case Verdict::notFound:
        printErrorLine(localizedWithDetail("error.item_not_found", item.path));
        anyError = true;
        continue;
      case Verdict::symbolicLink:
        printErrorLine(localizedWithDetail("cli.check.symbolic_link", item.path));
        anyError = true;
        continue;
      case Verdict::movable:
      case Verdict::blocked:
        break;
    }
    printLine(localizedFormat("cli.check.item", item.path));
    for (const auto& socket : item.inactiveSockets) printIndented(localizedFormat("cli.check.inactive_socket", socket));
    for (const auto& message : item.blockingMessages) printIndented(message);
    const bool blocked = item.verdict == Verdict::blocked;
    printLine(localized(blocked ? "cli.check.blocked" : "cli.check.movable"));
    anyBlocked = anyBlocked || blocked;
  }
  if (anyError) return kExitFailure;
  return anyBlocked ? kExitBlocked : kExitSuccess;
}

}  // namespace

void addCheckCommand(CLI::App& app, CommandRegistry& registry) {
  auto options = std::make_shared<CheckOptions>();
  CLI::App* check = app.add_subcommand("check", localized("cli.check.description"));
  check->add_option("path", options->paths, localized("cli.check.path"))->required();
  registry.add(check, [options] { return runCheck(*options); });
}

}  // namespace corvane
