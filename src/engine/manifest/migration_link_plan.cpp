#include "engine/manifest/migration_link_plan.h"

#include <deque>
#include <set>
#include <unordered_map>
#include <vector>

#include "support/paths.h"

namespace corvane {
namespace {

constexpr int kMaximumHops = 40;

class RelocationDecider {
 public:
  RelocationDecider(const std::string& source, const MigrationManifest& manifest)
      : source_(source), manifest_(manifest) {}

  bool needsRelocation(const std::string& relativePath) {
    if (auto cached = cache_.find(relativePath); cached != cache_.end()) return cached->second;
    auto entry = manifest_.find(relativePath);
    if (entry == manifest_.end() || !entry->second.link || entry->second.link->empty() ||
        entry->second.link->front() == '/') {
      return false;
    }
    // A cycle resolves nowhere; leaving it as it is keeps the copy as broken as the original.
    if (!evaluating_.insert(relativePath).second) return false;
    const bool result = decide(relativePath, *entry->second.link);
    cache_[relativePath] = result;
    evaluating_.erase(relativePath);
    return result;
  }

 private:
  bool decide(const std::string& relativePath, const std::string& target) {
    std::vector<std::string> stack = pathComponents(relativePath);
    stack.pop_back();
    std::deque<std::string> queue;
    for (auto& component : pathComponents(target)) queue.push_back(std::move(component));
    int hops = 0;
    while (!queue.empty()) {
      std::string component = std::move(queue.front());
      queue.pop_front();
      if (component == ".") continue;
      if (component == "..") {
        if (stack.empty()) return true;
        stack.pop_back();
        continue;
      }
      stack.push_back(std::move(component));
      const std::string here = join(stack);
      auto inner = manifest_.find(here);
      if (inner == manifest_.end() || !inner->second.link) continue;
      if (++hops > kMaximumHops) return false;
      const std::string& innerTarget = *inner->second.link;
      if (innerTarget.empty() || innerTarget.front() != '/') {
        // The inner link gets rewritten itself and then carries the resolution.
        if (here != relativePath && needsRelocation(here)) return false;
        stack.pop_back();
        auto innerComponents = pathComponents(innerTarget);
        queue.insert(queue.begin(), innerComponents.begin(), innerComponents.end());
      } else {
        if (innerTarget != source_ &&
            !(innerTarget.size() > source_.size() && innerTarget.compare(0, source_.size(), source_) == 0 &&
              innerTarget[source_.size()] == '/')) {
          return false;
        }
        stack = pathComponents(std::string_view(innerTarget).substr(source_.size()));
      }
    }
    return false;
  }

  static std::string join(const std::vector<std::string>& components) {
    std::string result;
    for (std::size_t i = 0; i < components.size(); ++i) {
      if (i > 0) result.push_back('/');
      result += components[i];
    }
    return result;
  }

  const std::string& source_;
  const MigrationManifest& manifest_;
  std::unordered_map<std::string, bool> cache_;
  std::set<std::string> evaluating_;
};

}  // namespace

std::map<std::string, std::string> MigrationLinkPlan::relocatedTargets(const std::string& source,
                                                                       const MigrationManifest& manifest) {
  std::map<std::string, std::string> targets;
  RelocationDecider decider(source, manifest);
  for (const auto& [relativePath, entry] : manifest) {
    if (entry.kind != MigrationEntry::Kind::symbolicLink || !decider.needsRelocation(relativePath)) continue;
    const std::string linkDirectory = parentPath(joinPath(source, relativePath));
    targets.emplace(relativePath, resolvingSymlinksInPath(linkDirectory + "/" + *entry.link));
  }
  return targets;
}

}  // namespace corvane
