#include "support/home_directory.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace corvane {

std::string userHomeDirectory() {
  if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') return home;
  struct passwd entry {};
  struct passwd* found = nullptr;
  char buffer[4096];
  if (::getpwuid_r(::getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
      found->pw_dir != nullptr && found->pw_dir[0] == '/')
    return found->pw_dir;
  return "/";
}

}  // namespace corvane
