#include "engine/preflight/migration_occupancy_description.h"

#include <fmt/format.h>

#include "settings/localization.h"
#include "support/paths.h"

namespace corvane {
namespace {

std::string joined(const std::vector<pid_t>& pids) {
  std::string text;
  for (pid_t pid : pids) {
    if (!text.empty()) text += ", ";
    text += std::to_string(pid);
  }
  return text;
}

// An item path as the user knows it: inside the item's own folder, the root as the item's name.
std::string shownPath(const std::string& source, const std::string& relativePath) {
  const std::string item = lastComponent(source);
  return relativePath.empty() ? item : item + "/" + relativePath;
}

}  // namespace

std::string MigrationOccupancyDescription::groupName(const MigrationOpenFiles::Group& group) {
  using Kind = MigrationOpenFiles::GroupKind;
  switch (group.kind) {
    case Kind::bundleOrigin:
      return localizedFormat("migration.occupancy.bundle_origin", group.name);
    case Kind::gitMonitor:
      return localized("migration.occupancy.git_monitor");
    case Kind::filePicker:
      return localized("migration.occupancy.file_picker");
    case Kind::unnamed:
      return localized("migration.occupancy.unnamed");
    case Kind::postgres:
    case Kind::process:
      return group.name;
  }
  return group.name;
}

std::string MigrationOccupancyDescription::message(const MigrationOpenFiles::Blocked& blocked) {
  std::vector<std::string> lines;
  lines.push_back(localizedFormat("migration.occupancy.header", lastComponent(blocked.source())));
  const auto& groups = blocked.groups();
  for (std::size_t index = 0; index < groups.size() && index < kGroupLimit; ++index) {
    const auto& group = groups[index];
    lines.push_back(localizedFormat("migration.occupancy.group", groupName(group),
                                    localizedFormat("migration.occupancy.pids", joined(group.pids))));
    for (auto reason : group.reasons) {
      const std::string name(MigrationOpenFiles::reasonName(reason));
      lines.push_back(localizedFormat("occupancy.message.reason", localized("migration.occupancy.reason_" + name),
                                      localized("migration.occupancy.kind_" + name)));
    }
    for (std::size_t path = 0; path < group.paths.size() && path < kPathLimit; ++path) {
      const auto& entry = group.paths[path];
      std::string shown = shownPath(blocked.source(), entry.itemPath);
      if (entry.openedAs) shown = localizedFormat("migration.occupancy.hardlink_alias", shown, *entry.openedAs);
      lines.push_back(localizedFormat("migration.occupancy.reference", shown));
    }
    if (group.paths.size() > kPathLimit) {
      lines.push_back(localizedFormat("migration.occupancy.more_paths", group.paths.size() - kPathLimit));
    }
  }
  if (groups.size() > kGroupLimit) {
    lines.push_back(localizedFormat("occupancy.message.more_groups", groups.size() - kGroupLimit));
  }
  std::string text;
  for (const auto& line : lines) {
    if (!text.empty()) text += '\n';
    text += line;
  }
  return text;
}

std::string MigrationOccupancyDescription::logLine(const std::string& source, std::string_view key,
                                                   const std::vector<std::string>& arguments) {
  std::vector<std::string> all{lastComponent(source)};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return formatLocalizedText(localized(key), all);
}

}  // namespace corvane
