// What the command line prints for the user: results on standard output, errors on standard
// error. Every text reaching here was looked up through a localization key.
#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace corvane {

void printLine(std::string_view text);
void printErrorLine(std::string_view text);
// The localized text of any failure (MigrationIssue, system error, other).
std::string failureDescription(const std::exception& failure);
// Prints the localized text of any failure (MigrationIssue, system error, other) and returns
// the failure exit status.
int reportFailure(const std::exception& failure);

}  // namespace corvane
