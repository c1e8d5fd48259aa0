#include "support/paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <deque>

namespace corvane {

std::string joinPath(std::string_view base, std::string_view child) {
  if (base.empty()) return std::string(child);
  if (child.empty()) return std::string(base);
  std::string result(base);
  if (result.back() != '/') result.push_back('/');
  result.append(child.front() == '/' ? child.substr(1) : child);
  return result;
}

std::string parentPath(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  auto slash = path.find_last_of('/');
  if (slash == std::string_view::npos) return ".";
  if (slash == 0) return "/";
  return std::string(path.substr(0, slash));
}

std::string lastComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  auto slash = path.find_last_of('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::vector<std::string> pathComponents(std::string_view path) {
  std::vector<std::string> components;
  std::size_t start = 0;
  while (start <= path.size()) {
    auto end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    if (end > start) components.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  return components;
}

std::string standardizePath(std::string_view path) {
  const bool absolute = !path.empty() && path.front() == '/';
  std::vector<std::string> stack;
  for (auto& component : pathComponents(path)) {
    if (component == ".") continue;
    if (component == "..") {
      if (!stack.empty() && stack.back() != "..") {
        stack.pop_back();
      } else if (!absolute) {
        stack.push_back(component);
      }
      continue;
    }
    stack.push_back(std::move(component));
  }
  std::string result = absolute ? "/" : "";
  for (std::size_t i = 0; i < stack.size(); ++i) {
    if (i > 0) result.push_back('/');
    result += stack[i];
  }
  if (result.empty()) result = absolute ? "/" : ".";
  return result;
}

bool isSameOrDescendant(std::string_view path, std::string_view ancestor) {
  if (ancestor == "/") return !path.empty() && path.front() == '/';
  if (path.size() < ancestor.size() || path.substr(0, ancestor.size()) != ancestor) return false;
  return path.size() == ancestor.size() || path[ancestor.size()] == '/';
}

std::string absolutePath(std::string_view path) {
  if (!path.empty() && path.front() == '/') return standardizePath(path);
  char buffer[PATH_MAX];
  const std::string current = getcwd(buffer, sizeof buffer) ? buffer : "/";
  return standardizePath(joinPath(current, path));
}

std::string resolvingSymlinksInPath(std::string_view path) {
  std::deque<std::string> pending;
  for (auto& component : pathComponents(path)) pending.push_back(std::move(component));
  std::vector<std::string> resolved;
  int hops = 0;
  auto current = [&] {
    std::string text;
    for (const auto& component : resolved) text += "/" + component;
    return text.empty() ? std::string("/") : text;
  };
  while (!pending.empty()) {
    std::string component = std::move(pending.front());
    pending.pop_front();
    if (component == ".") continue;
    if (component == "..") {
      if (!resolved.empty()) resolved.pop_back();
      continue;
    }
    resolved.push_back(component);
    const std::string candidate = current();
    struct stat st {};
    if (lstat(candidate.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) continue;
    if (++hops > 40) return standardizePath(path);
    char buffer[PATH_MAX];
    ssize_t length = readlink(candidate.c_str(), buffer, sizeof buffer);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof buffer) continue;
    std::string target(buffer, static_cast<std::size_t>(length));
    resolved.pop_back();
    if (!target.empty() && target.front() == '/') resolved.clear();
    auto targetComponents = pathComponents(target);
    pending.insert(pending.begin(), targetComponents.begin(), targetComponents.end());
  }
  return current();
}

}  // namespace corvane
