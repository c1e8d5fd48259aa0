// The places no item may be moved from, because a link there would break the system or the
// user's session: system trees (nothing inside them may go), a few folders that may not go
// themselves though their contents may, and every folder that contains one of those (moving it
// would move them too).
#pragma once

#include <string>
#include <vector>

#include "platform/host_system.h"

namespace corvane {

class ProtectedLocations {
 public:
  enum class Extent {
    itself,        // the folder itself, not what it contains
    withContents,  // the folder and everything inside it
  };
  struct Location {
    std::string path;  // absolute, standardized
    Extent extent = Extent::itself;
  };

  explicit ProtectedLocations(std::vector<Location> locations);
  // The system's own list for `system`, with the user's home folder and its Library folder.
  static ProtectedLocations forHost(platform::HostSystem system, const std::string& homeDirectory);
  static ProtectedLocations forCurrentUser();

  // Judged on the path as written and with its links resolved; a path that is not absolute is
  // refused, since it names no definite place.
  bool isProtected(const std::string& path) const;
  const std::vector<Location>& locations() const { return locations_; }

 private:
  bool isProtectedForm(const std::string& standardized) const;
  std::vector<Location> locations_;
};

}  // namespace corvane
