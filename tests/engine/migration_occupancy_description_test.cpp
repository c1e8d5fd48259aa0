// The message about an occupied item: the groups it names, the reasons, and the limits on paths
// and groups. Texts are compared with what the same keys produce, so wording can change freely.
#include <gtest/gtest.h>

#include "engine/migration_occupancy_description.h"
#include "support/localization.h"

namespace corvane {
namespace {

using Reason = MigrationOpenFiles::Reason;

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result;
  for (std::size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
    end = text.find('\n', start);
    result.push_back(text.substr(start, end == std::string::npos ? end : end - start));
  }
  return result;
}

MigrationOpenFiles::Group group(MigrationOpenFiles::GroupKind kind, std::string name, std::vector<pid_t> pids,
                                std::vector<std::string> paths, std::vector<Reason> reasons) {
  MigrationOpenFiles::Group result{kind, std::move(name), std::move(pids), {}, std::move(reasons)};
  for (auto& path : paths) result.paths.push_back({std::move(path), std::nullopt});
  return result;
}

std::string reasonLine(Reason reason) {
  const std::string name(MigrationOpenFiles::reasonName(reason));
  return localizedFormat("occupancy.message.reason", localized("migration.occupancy.reason_" + name),
                         localized("migration.occupancy.kind_" + name));
}

TEST(MigrationOccupancyDescriptionTest, FiveOpenPathsShowTwoAndCountTheRest) {
  auto editor = group(MigrationOpenFiles::GroupKind::process, "editor", {311, 312},
                      {"a.txt", "b.txt", "c.txt", "d.txt", "e.txt"}, {Reason::writable, Reason::working_directory});
  editor.paths[1].openedAs = "/Backups/b-link.txt";
  const MigrationOpenFiles::Blocked blocked("/Users/me/Projects", {editor});
  const auto text = lines(MigrationOccupancyDescription::message(blocked));
  const std::vector<std::string> expected = {
      localizedFormat("migration.occupancy.header", "Projects"),
      localizedFormat("migration.occupancy.group", "editor", localizedFormat("migration.occupancy.pids", "311, 312")),
      reasonLine(Reason::writable),
      reasonLine(Reason::working_directory),
      localizedFormat("migration.occupancy.reference", "Projects/a.txt"),
      localizedFormat("migration.occupancy.reference",
                      localizedFormat("migration.occupancy.hardlink_alias", "Projects/b.txt", "/Backups/b-link.txt")),
      localizedFormat("migration.occupancy.more_paths", 3),
  };
  EXPECT_EQ(text, expected);
}

TEST(MigrationOccupancyDescriptionTest, NamesFamiliesByTheirKeysAndLimitsTheGroups) {
  std::vector<MigrationOpenFiles::Group> groups = {
      group(MigrationOpenFiles::GroupKind::bundleOrigin, "Editor", {10, 11}, {""}, {Reason::runtime}),
      group(MigrationOpenFiles::GroupKind::gitMonitor, "", {20}, {".git"}, {Reason::directory}),
      group(MigrationOpenFiles::GroupKind::filePicker, "", {30}, {""}, {Reason::directory}),
      group(MigrationOpenFiles::GroupKind::unnamed, "", {40}, {"x"}, {Reason::unknown}),
      group(MigrationOpenFiles::GroupKind::postgres, "PostgreSQL", {50}, {"db"}, {Reason::writable}),
  };
  for (pid_t pid = 60; pid < 66; ++pid) {
    groups.push_back(group(MigrationOpenFiles::GroupKind::process, "worker", {pid}, {"w"}, {Reason::read_only}));
  }
  const MigrationOpenFiles::Blocked blocked("/srv/Item", groups);
  const std::string text = MigrationOccupancyDescription::message(blocked);
  const auto pids = [](const char* list) { return localizedFormat("migration.occupancy.pids", list); };
  for (const auto& line : {
           localizedFormat("migration.occupancy.group", localizedFormat("migration.occupancy.bundle_origin", "Editor"), pids("10, 11")),
           localizedFormat("migration.occupancy.group", localized("migration.occupancy.git_monitor"), pids("20")),
           localizedFormat("migration.occupancy.group", localized("migration.occupancy.file_picker"), pids("30")),
           localizedFormat("migration.occupancy.group", localized("migration.occupancy.unnamed"), pids("40")),
           localizedFormat("migration.occupancy.group", "PostgreSQL", pids("50")),
           localizedFormat("migration.occupancy.reference", "Item"),
           localizedFormat("occupancy.message.more_groups", groups.size() - MigrationOccupancyDescription::kGroupLimit),
       }) {
    EXPECT_NE(text.find(line), std::string::npos) << "missing line: " << line << "\nin:\n" << text;
  }
  EXPECT_EQ(text.find(pids("65")), std::string::npos) << "groups past the limit are only counted";
  EXPECT_EQ(MigrationOccupancyDescription::logLine("/srv/Item", "occupancy.message.reason", {"why"}),
            localizedFormat("occupancy.message.reason", "Item", "why"))
      << "log lines put the item name first";
}

}  // namespace
}  // namespace corvane
