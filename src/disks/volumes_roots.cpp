#include "disks/volumes_roots.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace corvane {
namespace {

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// Every component after the leading "/" is a real name.
bool hasOnlyNamedComponents(const std::string& path) {
  if (path.empty() || path.front() != '/') return false;
  std::size_t start = 1;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string_view component(path.data() + start, end - start);
    if (component.empty() || component == "." || component == "..") return false;
    start = end + 1;
  }
  return true;
}

std::string currentUserName() {
  if (const char* user = std::getenv("USER"); user != nullptr && *user != '\0') return user;
  if (const passwd* entry = getpwuid(geteuid()); entry != nullptr) return entry->pw_name;
  return {};
}

std::vector<std::string> splitColons(const std::string& text) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(':', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) parts.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

}  // namespace

VolumesRoots::VolumesRoots(std::vector<std::string> roots) {
  for (auto& root : roots) {
    root = withoutTrailingSlashes(std::move(root));
    if (root.size() > 1 && hasOnlyNamedComponents(root) &&
        std::find(roots_.begin(), roots_.end(), root) == roots_.end())
      roots_.push_back(std::move(root));
  }
}

VolumesRoots VolumesRoots::forThisSystem() {
  if (const char* chosen = std::getenv("CORVANE_VOLUMES_ROOTS"); chosen != nullptr && *chosen != '\0')
    return VolumesRoots(splitColons(chosen));
#ifdef __APPLE__
  return VolumesRoots({"/Volumes"});
#else
  std::vector<std::string> roots;
  if (const std::string user = currentUserName(); !user.empty()) {
    roots.push_back("/media/" + user);
    roots.push_back("/run/media/" + user);
  }
  roots.push_back("/media");
  roots.push_back("/mnt");
  return VolumesRoots(std::move(roots));
#endif
}

bool VolumesRoots::contains(const std::string& path) const { return volumePathOf(path).has_value(); }

std::optional<std::string> VolumesRoots::volumePathOf(const std::string& path) const {
  const std::string candidate = withoutTrailingSlashes(path);
  if (!hasOnlyNamedComponents(candidate)) return std::nullopt;
  // A root is never a volume, even when it lies below another root ("/media/me" below "/media").
  if (std::find(roots_.begin(), roots_.end(), candidate) != roots_.end()) return std::nullopt;
  const std::string* deepest = nullptr;
  for (const auto& root : roots_) {
    if (candidate.size() > root.size() + 1 && candidate.compare(0, root.size(), root) == 0 &&
        candidate[root.size()] == '/' && (deepest == nullptr || root.size() > deepest->size()))
      deepest = &root;
  }
  if (deepest == nullptr) return std::nullopt;
  const std::size_t nameEnd = candidate.find('/', deepest->size() + 1);
  return candidate.substr(0, nameEnd);
}

}  // namespace corvane
