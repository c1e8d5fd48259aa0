// The items offered for moving: real folders of an application folder and folders the user
// added, measured in the background and listed largest first, with the running state read from
// real processes; links (items moved already) and files are never offered.
#include "engine/migration_candidates.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "engine/running_program_closer.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"

namespace corvane {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> names(const MigrationCandidates& candidates) {
  std::vector<std::string> shown;
  for (const auto& candidate : candidates.candidates()) shown.push_back(candidate.name);
  return shown;
}

TEST(MigrationCandidatesTest, FoldersAreMeasuredLargestFirstWithTheirRunningProgramsAndAddedFoldersJoin) {
  TemporaryDirectory work;
  const std::string apps = work.child("apps");
  writeFile(apps + "/Small/a", std::string(1000, 's'));
  writeFile(apps + "/Large/a", std::string(300000, 'l'));
  writeFile(apps + "/Large/b", std::string(300000, 'l'));
  writeFile(apps + "/Medium/a", std::string(100000, 'm'));
  writeFile(apps + "/readme.txt", "not an item");
  ASSERT_EQ(symlink((apps + "/Large").c_str(), (apps + "/Moved").c_str()), 0);
  std::filesystem::copy_file("/bin/sleep", apps + "/Small/sleeper");
  auto program = OccupantProcess::running(apps + "/Small/sleeper", {"600"});

  MainQueue queue;
  MigrationCandidates candidates(queue, {{{apps, false}}});
  candidates.refresh();
  ASSERT_TRUE(queue.runUntil([&] { return !candidates.isMeasuring(); }, 60s));
  EXPECT_EQ(names(candidates), (std::vector<std::string>{"Large", "Medium", "Small"}));
  const auto& large = candidates.candidates()[0];
  EXPECT_EQ(large.sizeBytes, 600000);
  EXPECT_TRUE(large.isApplication);
  EXPECT_FALSE(large.running);
  EXPECT_TRUE(candidates.candidates()[2].running) << "a program runs from inside Small";

  // Quitting what runs inside an item waits until it is gone.
  EXPECT_TRUE(closeRunningPrograms(apps + "/Small", {program.pid()}));
  candidates.refresh();
  ASSERT_TRUE(queue.runUntil([&] { return !candidates.isMeasuring(); }, 60s));
  EXPECT_FALSE(candidates.candidates()[2].running);

  writeFile(work.child("Projects/big"), std::string(900000, 'p'));
  EXPECT_FALSE(candidates.addFolder(apps + "/Moved")) << "a link is an item moved already";
  EXPECT_FALSE(candidates.addFolder(apps + "/readme.txt"));
  EXPECT_FALSE(candidates.addFolder(apps + "/Large")) << "listed already";
  EXPECT_TRUE(candidates.addFolder(work.child("Projects")));
  ASSERT_TRUE(queue.runUntil([&] { return !candidates.isMeasuring(); }, 60s));
  EXPECT_EQ(names(candidates), (std::vector<std::string>{"Projects", "Large", "Medium", "Small"}));
  EXPECT_TRUE(candidates.candidates()[0].addedByUser);
  EXPECT_FALSE(candidates.candidates()[0].isApplication);
}

}  // namespace
}  // namespace corvane
