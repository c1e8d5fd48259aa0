#include "catalogue/protected_locations.h"

#include "support/home_directory.h"
#include "support/paths.h"

namespace corvane {
namespace {

using Extent = ProtectedLocations::Extent;

std::vector<ProtectedLocations::Location> macLocations(const std::string& home) {
  return {
      {"/System", Extent::withContents},
      {"/bin", Extent::withContents},
      {"/sbin", Extent::withContents},
      {"/usr", Extent::withContents},
      {"/private", Extent::withContents},
      {"/etc", Extent::withContents},
      {"/var", Extent::withContents},
      {"/tmp", Extent::withContents},
      {"/dev", Extent::withContents},
      {"/cores", Extent::withContents},
      {"/Library/Developer/CoreSimulator", Extent::withContents},
      {"/Applications", Extent::itself},
      {"/Library", Extent::itself},
      {"/Users", Extent::itself},
      {"/Volumes", Extent::itself},
      {"/opt", Extent::itself},
      {home, Extent::itself},
      {joinPath(home, "Library"), Extent::itself},
  };
}

std::vector<ProtectedLocations::Location> linuxLocations(const std::string& home) {
  return {
      // The programs, libraries and configuration of the system, and the kernel's own trees.
      {"/bin", Extent::withContents},
      {"/sbin", Extent::withContents},
      {"/lib", Extent::withContents},
      {"/lib32", Extent::withContents},
      {"/lib64", Extent::withContents},
      {"/libx32", Extent::withContents},
      {"/usr", Extent::withContents},
      {"/etc", Extent::withContents},
      {"/boot", Extent::withContents},
      {"/proc", Extent::withContents},
      {"/sys", Extent::withContents},
      {"/dev", Extent::withContents},
      {"/run", Extent::withContents},
      // Package and service state that daemons open at start, before any external disk mounts.
      {"/var/lib", Extent::withContents},
      {"/var/run", Extent::withContents},
      {"/var/lock", Extent::withContents},
      {"/snap", Extent::withContents},
      {"/lost+found", Extent::withContents},
      {"/home", Extent::itself},
      {"/root", Extent::itself},
      {"/opt", Extent::itself},
      {"/srv", Extent::itself},
      {"/var", Extent::itself},
      {"/tmp", Extent::itself},
      {"/var/tmp", Extent::itself},
      {"/media", Extent::itself},
      {"/mnt", Extent::itself},
      {home, Extent::itself},
  };
}

}  // namespace

ProtectedLocations::ProtectedLocations(std::vector<Location> locations) : locations_(std::move(locations)) {
  for (auto& location : locations_) location.path = standardizePath(location.path);
}

ProtectedLocations ProtectedLocations::forHost(platform::HostSystem system, const std::string& homeDirectory) {
  const std::string home = standardizePath(homeDirectory);
  return ProtectedLocations(system == platform::HostSystem::macOS ? macLocations(home) : linuxLocations(home));
}

ProtectedLocations ProtectedLocations::forCurrentUser() { return forHost(platform::hostSystem(), userHomeDirectory()); }

bool ProtectedLocations::isProtected(const std::string& path) const {
  if (path.empty() || path.front() != '/') return true;
  const std::string standardized = standardizePath(path);
  if (isProtectedForm(standardized)) return true;
  const std::string resolved = resolvingSymlinksInPath(standardized);
  return resolved != standardized && isProtectedForm(resolved);
}

bool ProtectedLocations::isProtectedForm(const std::string& standardized) const {
  for (const auto& location : locations_) {
    if (standardized == location.path) return true;
    if (location.extent == Extent::withContents && isSameOrDescendant(standardized, location.path)) return true;
    // Moving a folder moves everything in it, protected places included.
    if (isSameOrDescendant(location.path, standardized)) return true;
  }
  return false;
}

}  // namespace corvane
