// How long the engine waits for the external tools it asks about an item: the open-file lister,
// the socket probe and the lookup of a socket's owners. The defaults are the bounds the checks
// are designed around; a test, or a slow machine, may set others for the whole process. (The
// simulator listing takes its bounds from its own services.)
#pragma once

#include <chrono>

#include "platform/process.h"

namespace corvane {

struct MigrationToolDeadlines {
  // lsof: 8 s, then asked to terminate, 1 s later killed; its output readers get 2 s more.
  platform::ProcessDeadlines openFileLister{std::chrono::milliseconds(8000), std::chrono::milliseconds(1000),
                                            std::chrono::milliseconds(2000)};
  // One socket probe, and one owner lookup: 3 s, then 1 s, readers 1 s.
  platform::ProcessDeadlines socketProbe{std::chrono::milliseconds(3000), std::chrono::milliseconds(1000),
                                         std::chrono::milliseconds(1000)};
  platform::ProcessDeadlines socketOwners{std::chrono::milliseconds(3000), std::chrono::milliseconds(1000),
                                          std::chrono::milliseconds(1000)};

  // The deadlines in force for this process (any thread).
  static MigrationToolDeadlines current();
  static void setCurrent(const MigrationToolDeadlines& deadlines);
};

}  // namespace corvane
