// The static description of one cleanable thing (a cache folder, the Trash, Docker's unused
// images) and the tables of them that Corvane offers on each system, in on-screen order.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cleaner/clean_item.h"
#include "platform/host_system.h"

namespace corvane {

// What cleaning does to each of a definition's roots. A root that is a symbolic link (a folder
// moved to another disk) is always emptied inside its target and the link kept.
enum class PathCleaning {
  emptyInPlace,       // remove what is inside, keep the folder (the Trash)
  removeAndRecreate,  // remove the folder, then create it again empty (caches the system expects)
  remove,             // remove the folder; its owner creates it when needed
};

struct CleanerDefinition {
  std::string id;
  CleanCategoryType category = CleanCategoryType::system;
  std::string nameKey;
  std::string descKey;
  CleanRiskLevel riskLevel = CleanRiskLevel::safe;
  std::vector<std::string> paths;  // "~" stands for the home directory
  std::optional<std::string> customCommand;
  std::optional<std::vector<std::string>> customArgs;
  PathCleaning cleaning = PathCleaning::remove;
  // Names directly inside the roots that belong to other definitions: neither sized nor removed
  // here, so a parent cache folder is not counted twice. Only for `emptyInPlace` definitions.
  std::vector<std::string> excludedNames;

  bool isDocker() const { return customCommand.has_value(); }
};

std::vector<CleanerDefinition> macDefinitions();
std::vector<CleanerDefinition> linuxDefinitions();
std::vector<CleanerDefinition> predefinedDefinitions(platform::HostSystem system);

// "~" and "~/..." become the home directory; other paths stay as they are.
std::string expandTilde(const std::string& path, const std::string& homeDirectory);

}  // namespace corvane
