#include "engine/headless_modes.h"

#include <unistd.h>

#include <iostream>
#include <string_view>
#include <vector>

#include "engine/preflight/migration_socket_probe.h"
#include "engine/switch/migration_privileged_helper.h"

namespace corvane {

std::optional<int> runHeadlessMode(int argc, char** argv) {
  // The socket probe child: one observation on standard output, then gone without running any
  // exit handlers, so nothing of the program's own start-up or shut-down can interfere.
  if (MigrationSocketProbe::handleCommandLine(argc, argv)) _exit(0);
  if (argc < 2) return std::nullopt;
  const std::string_view mode = argv[1];
  const std::vector<std::string> rest(argv + 2, argv + argc);
  // The privileged helper, started as root by an administrator command (see the header).
  if (mode == kExchangeHelperArgument) return runExchangeHelper(rest, std::cout);
  if (mode == kFileOperationHelperArgument) return runFileOperationHelper(rest, std::cout);
  return std::nullopt;
}

}  // namespace corvane
