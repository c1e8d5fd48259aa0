#include "app/user_output.h"

#include <cstdio>
#include <cstring>

#include "app/command_line.h"
#include "engine/migration_issue.h"
#include "platform/posix_error.h"
#include "settings/localization.h"
#include "settings/system_error_text.h"
#include "support/diagnostic_log.h"

namespace corvane {

void printLine(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void printErrorLine(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fputc('\n', stderr);
  std::fflush(stderr);
}

std::string failureDescription(const std::exception& failure) {
  logInfo(failure.what());
  if (const auto* issue = dynamic_cast<const MigrationIssue*>(&failure)) return issue->localizedDescription();
  if (const auto* posix = dynamic_cast<const platform::PosixError*>(&failure)) {
    return localizedFormat("error.system", posix->path(), localizedSystemError(posix->errnoValue()));
  }
  return localizedFormat("error.unexpected", failure.what());
}

int reportFailure(const std::exception& failure) {
  printErrorLine(failureDescription(failure));
  return kExitFailure;
}

}  // namespace corvane
