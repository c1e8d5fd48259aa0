// What the command line does when programs inside an item are running: with --yes they are
// asked to quit (and the item goes once they have), on a terminal the user chooses, otherwise
// the item is skipped.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "app/terminal_prompter.h"

namespace corvane {

// True when nothing inside the item runs any more and it may be moved.
bool askToCloseRunningApp(const std::string& path, const std::string& name, const std::vector<pid_t>& running,
                          PresetAnswer preset);

}  // namespace corvane
