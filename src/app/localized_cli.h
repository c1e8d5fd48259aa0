// Puts the command line parser's own texts (help headings, the help and version flags, parse
// errors) through the string tables, so help and usage errors appear in the chosen language.
#pragma once

#include <CLI/CLI.hpp>

namespace corvane {

// Before any option or subcommand is added: headings, option and command groups, the help and
// version flags, and the message printed for a command line that can't be parsed.
void localizeParserTexts(CLI::App& app);
// After the subcommands are added: their own help flags.
void localizeSubcommandTexts(CLI::App& app);

}  // namespace corvane
