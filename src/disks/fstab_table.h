// Reading the system's file table for a volume's entry. Only the UUID field decides: an entry
// for the volume protects it whatever mount path and options it names.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// The first line of `table` (blanks trimmed) whose first field is "UUID=" + `uuid`, compared
// without regard to case; comment lines and blank lines never count.
std::optional<std::string> protectingFstabLine(std::string_view table, std::string_view uuid);

}  // namespace corvane
