// The `corvane` command line: headless helper modes first, then the subcommands.
#pragma once

namespace corvane {

// Exit statuses shared by every subcommand.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitDeferred = 2;
inline constexpr int kExitBlocked = 3;
inline constexpr int kExitUsage = 64;

int runCommandLine(int argc, char** argv);

}  // namespace corvane
