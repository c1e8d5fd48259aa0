// The diagnostic log: lines for developers and bug reports, never the user's output. They go
// to standard error (or a file) when their level is within the chosen verbosity.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

enum class LogLevel { error = 0, warning = 1, info = 2, debug = 3 };

void setDiagnosticVerbosity(LogLevel level);
LogLevel diagnosticVerbosity();
// Appends to `path` instead of standard error; an empty path goes back to standard error.
void setDiagnosticLogFile(const std::string& path);

void logDiagnostic(LogLevel level, std::string_view message);
inline void logError(std::string_view message) { logDiagnostic(LogLevel::error, message); }
inline void logWarning(std::string_view message) { logDiagnostic(LogLevel::warning, message); }
inline void logInfo(std::string_view message) { logDiagnostic(LogLevel::info, message); }
inline void logDebug(std::string_view message) { logDiagnostic(LogLevel::debug, message); }

}  // namespace corvane
