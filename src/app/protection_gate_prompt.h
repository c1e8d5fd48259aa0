// The protection gate of `corvane migrate` on the command line: the destination the disk
// manager chose (or --to), and, unless its file-table entry exists, the suggestion to protect
// it: asked on a terminal, enabled with --protect, skipped for this run with --yes.
#pragma once

#include <string>

#include "app/terminal_prompter.h"

namespace corvane {

struct GateRequest {
  std::string namedDisk;  // --to, empty when the disk manager chooses
  bool protect = false;   // --protect
  PresetAnswer preset = PresetAnswer::none;
};

// The disk to migrate to. Throws MigrationIssue when no disk is attached.
std::string destinationAfterProtectionGate(const GateRequest& request);

}  // namespace corvane
