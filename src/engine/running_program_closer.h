// Quits the programs running from inside an item once the user agreed, and waits (bounded) until
// nothing runs there any more, so that every front end closes them the same way.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace corvane {

// Asks each process to terminate, then waits up to `patience` for the item to be free. True
// when nothing inside the item runs any more.
bool closeRunningPrograms(const std::string& itemPath, const std::vector<pid_t>& running,
                          std::chrono::milliseconds patience = std::chrono::seconds(10));

}  // namespace corvane
