// The running user's home directory: $HOME when it is absolute, else the password database,
// else "/".
#pragma once

#include <string>

namespace corvane {

std::string userHomeDirectory();

}  // namespace corvane
