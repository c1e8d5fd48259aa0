#include "cleaner/cleaner_definition.h"

namespace corvane {
namespace {

using Category = CleanCategoryType;
using Risk = CleanRiskLevel;

CleanerDefinition directory(std::string id, std::string keyWord, Category category, Risk risk,
                            std::vector<std::string> paths, PathCleaning cleaning) {
  CleanerDefinition definition;
  definition.id = std::move(id);
  definition.category = category;
  definition.nameKey = "cleaner.item." + keyWord;
  definition.descKey = "cleaner.desc." + keyWord;
  definition.riskLevel = risk;
  definition.paths = std::move(paths);
  definition.cleaning = cleaning;
  return definition;
}

CleanerDefinition docker() {
  CleanerDefinition definition;
  definition.id = "docker";
  definition.category = Category::largeFiles;
  definition.nameKey = "cleaner.item.docker";
  definition.descKey = "cleaner.desc.docker";
  definition.riskLevel = Risk::warning;
  definition.customCommand = "docker";
  definition.customArgs = std::vector<std::string>{"system", "prune", "-a", "-f"};
  return definition;
}

}  // namespace

std::vector<CleanerDefinition> macDefinitions() {
  // The Trash keeps its folder; folders the system expects to find ("Caches", "DerivedData")
  // come back empty; the rest are recreated by their owners.
  constexpr auto empty = PathCleaning::emptyInPlace;
  constexpr auto recreate = PathCleaning::removeAndRecreate;
  constexpr auto remove = PathCleaning::remove;
  return {
      directory("caches", "caches", Category::system, Risk::safe, {"~/Library/Caches"}, recreate),
      directory("logs", "logs", Category::system, Risk::safe, {"~/Library/Logs"}, remove),
      directory("trash", "trash", Category::system, Risk::safe, {"~/.Trash"}, empty),
      directory("webkit", "webkit", Category::system, Risk::safe, {"~/Library/WebKit"}, remove),
      directory("app_support_caches", "app_support_caches", Category::system, Risk::safe,
                {"~/Library/Application Support/Caches"}, recreate),
      directory("npm", "npm", Category::development, Risk::safe, {"~/.npm/_cacache"}, remove),
      directory("cargo", "cargo", Category::development, Risk::safe,
                {"~/.cargo/registry/cache", "~/.cargo/registry/src"}, remove),
      directory("jetbrains", "jetbrains", Category::development, Risk::safe, {"~/Library/Caches/JetBrains"}, recreate),
      directory("homebrew", "homebrew", Category::development, Risk::safe, {"~/Library/Caches/Homebrew"}, recreate),
      directory("swiftpm", "swiftpm", Category::development, Risk::safe, {"~/Library/Caches/org.swift.swiftpm"},
                recreate),
      directory("derivedData", "derived_data", Category::development, Risk::warning,
                {"~/Library/Developer/Xcode/DerivedData"}, recreate),
      directory("deviceSupport", "device_support", Category::development, Risk::warning,
                {"~/Library/Developer/Xcode/iOS DeviceSupport"}, remove),
      directory("simulator", "simulator", Category::development, Risk::warning,
                {"~/Library/Developer/CoreSimulator/Caches"}, recreate),
      directory("mail", "mail", Category::largeFiles, Risk::warning,
                {"~/Library/Containers/com.apple.mail/Data/Library/Mail Downloads"}, remove),
      docker(),
  };
}

std::vector<CleanerDefinition> linuxDefinitions() {
  constexpr auto empty = PathCleaning::emptyInPlace;
  constexpr auto remove = PathCleaning::remove;
  // ~/.cache is emptied in place (programs expect it to exist) without the caches that have
  // items of their own, so nothing is counted twice and unselecting one of them protects it.
  auto userCache = directory("user_cache", "user_cache", Category::system, Risk::safe, {"~/.cache"}, empty);
  userCache.excludedNames = {"pip", "go-build", "JetBrains", "thumbnails"};
  // The freedesktop Trash keeps its layout: only what is inside files/ and info/ goes.
  return {
      std::move(userCache),
      directory("trash", "trash", Category::system, Risk::safe,
                {"~/.local/share/Trash/files", "~/.local/share/Trash/info"}, empty),
      directory("thumbnails", "thumbnails", Category::system, Risk::safe, {"~/.cache/thumbnails"}, empty),
      directory("npm", "npm", Category::development, Risk::safe, {"~/.npm/_cacache"}, remove),
      directory("pip", "pip", Category::development, Risk::safe, {"~/.cache/pip"}, empty),
      directory("cargo", "cargo", Category::development, Risk::safe,
                {"~/.cargo/registry/cache", "~/.cargo/registry/src"}, remove),
      directory("go_build", "go_build", Category::development, Risk::warning, {"~/.cache/go-build"}, empty),
      directory("jetbrains", "jetbrains", Category::development, Risk::safe, {"~/.cache/JetBrains"}, empty),
      docker(),
  };
}

std::vector<CleanerDefinition> predefinedDefinitions(platform::HostSystem system) {
  return system == platform::HostSystem::macOS ? macDefinitions() : linuxDefinitions();
}

std::string expandTilde(const std::string& path, const std::string& homeDirectory) {
  if (path == "~") return homeDirectory;
  if (path.rfind("~/", 0) == 0) {
    std::string home = homeDirectory;
    while (home.size() > 1 && home.back() == '/') home.pop_back();
    return (home == "/" ? std::string() : home) + path.substr(1);
  }
  return path;
}

}  // namespace corvane
