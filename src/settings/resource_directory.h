// Where the string tables (<code>.lproj/Localizable.strings) are installed: the directory
// named by CORVANE_RESOURCES, else share/corvane beside the executable's bin directory, else
// the install prefix chosen at build time, else the source tree (a build that was never
// installed). Absent when none of them exists.
#pragma once

#include <optional>
#include <string>

namespace corvane {

std::optional<std::string> locateResourceDirectory();

}  // namespace corvane
