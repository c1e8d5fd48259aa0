// What every operation needs to know about a failure, whatever threw it: the text the log and
// the front ends show, whether it only defers the item, and what it left to clean up.
#pragma once

#include <exception>
#include <optional>
#include <string>

namespace corvane {

// The localized text of a failure; an unexpected one is logged and named generically.
std::string migrationErrorDescription(const std::exception_ptr& failure);

// A file held open, or a question not answered yes: the item waits for a later run.
bool isMigrationDeferral(const std::exception_ptr& failure);

// The path a failed transfer could not clean up, when there is one.
std::optional<std::string> migrationCleanupPath(const std::exception_ptr& failure);

}  // namespace corvane
