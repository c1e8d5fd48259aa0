// Where external volumes are mounted: "/Volumes" on macOS; on Linux "/media/$USER",
// "/run/media/$USER", "/media" and "/mnt". The list is configuration (CORVANE_VOLUMES_ROOTS,
// colon-separated, replaces it), so tests and unusual systems can name their own.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace corvane {

class VolumesRoots {
 public:
  explicit VolumesRoots(std::vector<std::string> roots);
  static VolumesRoots forThisSystem();

  const std::vector<std::string>& roots() const { return roots_; }

  // True when `path` lies strictly below a root (a root itself is not). Paths with empty, "."
  // or ".." components never are, so a crafted path cannot climb out of a root.
  bool contains(const std::string& path) const;
  // The volume's mount path that `path` names: the deepest root holding it plus the first
  // component below that root ("/media/me/Backup/Apps/x" -> "/media/me/Backup"). Absent when
  // `path` is not contained.
  std::optional<std::string> volumePathOf(const std::string& path) const;

 private:
  std::vector<std::string> roots_;  // absolute, no trailing "/"
};

}  // namespace corvane
