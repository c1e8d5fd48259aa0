#include "app/protection_gate_prompt.h"

#include <unistd.h>

#include "app/disk_session.h"
#include "app/user_output.h"
#include "engine/migration_issue.h"
#include "settings/localization.h"
#include "support/paths.h"

namespace corvane {
namespace {

enum class Suggestion { enable, skip };

Suggestion answerSuggestion(const GateRequest& request) {
  if (request.protect) return Suggestion::enable;
  if (request.preset != PresetAnswer::none) return Suggestion::skip;
  auto prompter = TerminalPrompter::onStandardStreams(PresetAnswer::none);
  const MigrationPreflightQuestion question{
      localized("disk.protection.suggestion.title"),
      localized("disk.protection.suggestion.message"),
      {localized("disk.protection.suggestion.enable"), localized("disk.protection.suggestion.skip")}};
  if (!isatty(STDIN_FILENO)) {
    printErrorLine(localized("disk.protection.suggestion.title"));
    printErrorLine(localized("cli.migrate.protection_not_asked"));
    return Suggestion::skip;
  }
  return prompter->askChoice(question, 1) == 0 ? Suggestion::enable : Suggestion::skip;
}

void enableProtection(DiskSession& session) {
  std::optional<std::pair<bool, std::optional<std::string>>> result;
  session.manager.enableDiskProtection(
      [&](bool success, std::optional<std::string> message) { result.emplace(success, std::move(message)); });
  session.runUntil([&] { return result.has_value(); });
  if (result && result->first) {
    printErrorLine(localizedFormat("cli.disks.protect.done", *session.manager.destinationPath()));
    return;
  }
  // The migration starts either way: protection keeps links valid later, it guards no data now.
  printErrorLine(result && result->second ? *result->second : localized("error.unexpected"));
}

}  // namespace

std::string destinationAfterProtectionGate(const GateRequest& request) {
  DiskSession session(VolumeWatch::off);
  if (!request.namedDisk.empty()) session.manager.setDestinationPath(absolutePath(request.namedDisk));
  switch (session.manager.protectionGate()) {
    case ProtectionGate::noDestination:
      throw MigrationIssue("cli.migrate.no_destination");
    case ProtectionGate::start:
      break;
    case ProtectionGate::suggest:
      if (answerSuggestion(request) == Suggestion::enable)
        enableProtection(session);
      else
        session.manager.skipProtectionForSession();
      break;
  }
  return *session.manager.destinationPath();
}

}  // namespace corvane
