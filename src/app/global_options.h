// The global options that act before anything is looked up or printed: --lang (the language
// of this run, for the help text too) and --verbose (so the first diagnostics follow it).
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

namespace corvane {

struct EarlyGlobalOptions {
  std::optional<std::string> language;
  bool verbose = false;
};

// Reads the options that come before the command name, as the parser will.
EarlyGlobalOptions scanEarlyGlobalOptions(int argc, const char* const* argv);
// Applies them; the exit status when --lang names a language Corvane does not have.
std::optional<int> applyEarlyGlobalOptions(int argc, const char* const* argv);
// Declares --lang to the parser (already applied; kept so help lists it and parsing accepts it).
void addLanguageOption(CLI::App& app);

}  // namespace corvane
