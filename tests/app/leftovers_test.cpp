// What killed runs, updaters and forgotten disks leave behind, and how the next command and
// `corvane doctor` settle it. Killing `corvane migrate` and `corvane back` at every step boundary
// and at random moments, each time the item ends either untouched or completely migrated with its
// record, and nothing else is left on either disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>

#include "engine/journal/migration_journal.h"
#include "engine/manifest/migration_entry.h"
#include "engine/migration_manager.h"
#include "engine/migration_test_support.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/process.h"

namespace corvane {
namespace {

using Step = MigrationJournal::Step;

// Starts the binary with `environment` added; the caller stops and reaps it.
// The run's output goes to `output` (nowhere when empty), to be shown when a check fails.
pid_t spawnCorvane(const std::vector<std::string>& arguments,
                   const std::vector<std::pair<std::string, std::string>>& environment,
                   const std::string& output = {}) {
  auto variables = platform::currentEnvironment();
  for (const auto& [name, value] : environment) variables[name] = value;
  std::vector<std::string> texts;
  for (const auto& [name, value] : variables) texts.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (auto& text : texts) envp.push_back(text.data());
  envp.push_back(nullptr);
  std::vector<std::string> all{corvaneBinaryPath(), "--lang", "en"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& argument : all) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int devNull = open("/dev/null", O_RDWR);
    const int sink = output.empty() ? devNull : open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(devNull, 0);
    dup2(sink, 1);
    dup2(sink, 2);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  return pid;
}

// Waits (bounded) until the child stopped itself at its pause or ended. True when it stopped.
bool waitForPause(pid_t pid) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    const pid_t done = waitpid(pid, &status, WNOHANG | WUNTRACED);
    if (done == pid) return WIFSTOPPED(status);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

void killAndReap(pid_t pid) {
  kill(pid, SIGKILL);
  int status = 0;
  waitpid(pid, &status, 0);
}

// The first entry in which two manifests differ, for a readable failure.
std::string firstDifference(const std::map<std::string, std::string>& now,
                            const std::map<std::string, std::string>& before) {
  for (const auto& [path, text] : before) {
    const auto found = now.find(path);
    if (found == now.end()) return "missing: " + path;
    if (found->second != text)
      return "differs: " + path + "\n  now:    " + found->second.substr(0, 200) + "\n  before: " + text.substr(0, 200);
  }
  for (const auto& [path, text] : now)
    if (!before.count(path)) return "added: " + path;
  return {};
}

std::string journalContents(const std::string& disk) {
  std::string names;
  for (const auto& entry : std::filesystem::directory_iterator(MigrationJournal::directoryOf(disk)))
    names += entry.path().filename().string() + " ";
  return names;
}

bool hasLeftoverName(const std::string& root) {
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(root, error);
       it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (name.starts_with(".corvane-transfer-") || name.starts_with(".corvane-access-") ||
        name.find(".corvane_backup_") != std::string::npos)
      return true;
  }
  return false;
}

class LeftoversTest : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      internal_ = TestVolume::create(VolumeKind::ext4, 96 << 20);
      external_ = TestVolume::create(VolumeKind::ext4, 96 << 20);
    } catch (const VolumeUnavailable& unavailable) {
      GTEST_SKIP() << "needs loop volumes: " << unavailable.what();
    }
    home_ = internal_->child("home/me");
    makeDirectories(home_);
  }

  std::vector<std::pair<std::string, std::string>> environment() const {
    return {{"HOME", home_}, {"CORVANE_VOLUMES_ROOTS", internal_->child("no-volumes")}};
  }

  CorvaneRun corvane(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--lang", "en"});
    return runCorvane(arguments, {.environment = environment()});
  }

  // A project with hard links, a link inside it and a few larger files.
  std::string makeItem(const std::string& name) {
    const std::string item = home_ + "/" + name;
    buildSampleTree(item, {.hardLinks = true, .symbolicLinks = false});
    symlink("Contents/Info.plist", (item + "/info-link").c_str());
    for (int i = 0; i < 40; ++i)
      writeFile(item + "/data/file" + std::to_string(i), std::string(30000 + i, 'a' + i % 26));
    return item;
  }

  std::string copyOf(const std::string& item) const {
    return MigrationManager::destinationFor(item, external_->mountPoint());
  }

  std::vector<std::string> recordedOriginals() {
    const auto run = corvane({"list", "--disk", external_->mountPoint(), "--json"});
    std::vector<std::string> originals;
    for (const auto& item : nlohmann::json::parse(run.standardOutput)) originals.push_back(item["originalPath"]);
    return originals;
  }

  bool recorded(const std::string& item) {
    const auto originals = recordedOriginals();
    return std::count(originals.begin(), originals.end(), item) == 1;
  }

  // Returns what the settling command printed.
  std::string settleWith(const std::string& resolver) {
    if (resolver == "doctor") {
      const auto run = corvane({"doctor", "--disk", external_->mountPoint(), "--fix", "--yes"});
      EXPECT_EQ(run.exitStatus, 0) << run.standardOutput << run.standardError;
      return run.standardOutput + run.standardError;
    } else {
      // The next command that changes the disk settles its journal before anything else: here
      // the migration of another item.
      const std::string bystander = home_ + "/bystander-" + std::to_string(++bystanders_);
      writeFile(bystander + "/notes.txt", "another item\n");
      const auto run = corvane({"migrate", bystander, "--to", external_->mountPoint(), "--yes"});
      EXPECT_EQ(run.exitStatus, 0) << run.standardOutput << run.standardError;
      return run.standardOutput + run.standardError;
    }
  }

  // Either the untouched original or a complete migration with its record; nothing else left.
  enum class Expected { original, migrated, either };
  void expectWhole(const std::string& item, const std::map<std::string, std::string>& before, Expected expected,
                   const std::string& context) {
    SCOPED_TRACE(context);
    const auto entry = MigrationEntry::read(item, AT_FDCWD);
    ASSERT_TRUE(entry);
    const bool migrated = entry->kind == MigrationEntry::Kind::symbolicLink;
    if (expected != Expected::either) {
      EXPECT_EQ(migrated, expected == Expected::migrated);
    }
    if (migrated) {
      EXPECT_EQ(*entry->link, copyOf(item));
      EXPECT_EQ(firstDifference(fullManifest(copyOf(item)), before), "");
      EXPECT_TRUE(recorded(item));
    } else {
      EXPECT_EQ(firstDifference(fullManifest(item), before), "");
      EXPECT_FALSE(MigrationEntry::read(copyOf(item), AT_FDCWD));
      EXPECT_FALSE(recorded(item));
    }
    EXPECT_FALSE(hasLeftoverName(home_));
    EXPECT_FALSE(hasLeftoverName(external_->mountPoint()));
    const auto journal = MigrationJournal::directoryOf(external_->mountPoint());
    EXPECT_TRUE(!std::filesystem::exists(journal) || std::filesystem::is_empty(journal))
        << journalContents(external_->mountPoint());
    const auto doctor = corvane({"doctor", "--disk", external_->mountPoint(), "--json"});
    EXPECT_EQ(nlohmann::json::parse(doctor.standardOutput), nlohmann::json::array()) << doctor.standardOutput;
  }

  enum class Direction { migrate, back };
  // Kills the command at each step's pause; alternately doctor and the next command that changes
  // the disk settle what it left, and the item must end as `expected` says.
  void killAtEverySteps(Direction direction, const std::vector<std::pair<const char*, Expected>>& steps) {
    const bool back = direction == Direction::back;
    int index = 0;
    for (const auto& [step, expected] : steps) {
      const std::string item = makeItem(std::string(back ? "back-" : "project-") + step);
      const auto before = fullManifest(item);
      if (back) {
        ASSERT_EQ(corvane({"migrate", item, "--to", external_->mountPoint(), "--yes"}).exitStatus, 0);
      }
      auto environment = this->environment();
      environment.emplace_back("CORVANE_TEST_PAUSE_AT", step);
      const pid_t pid = spawnCorvane(
          {back ? "back" : "migrate", item, back ? "--disk" : "--to", external_->mountPoint(), "--yes"}, environment);
      ASSERT_TRUE(waitForPause(pid)) << step;
      killAndReap(pid);
      const bool byDoctor = index++ % 2 == 0;
      settleWith(byDoctor ? "doctor" : "next command");
      expectWhole(item, before, expected,
                  std::string("killed at ") + step + (byDoctor ? " (doctor)" : " (next command)"));
    }
  }

  std::unique_ptr<TestVolume> internal_;
  std::unique_ptr<TestVolume> external_;
  std::string home_;
  int bystanders_ = 0;
};

TEST_F(LeftoversTest, AMigrationKilledAtAnyStepIsSettledByTheNextCommand) {
  killAtEverySteps(Direction::migrate, {{Step::started, Expected::original},
                                        {Step::rehearsed, Expected::original},
                                        {Step::stagingCreated, Expected::original},
                                        {Step::copied, Expected::original},
                                        {Step::verified, Expected::original},
                                        {Step::flushed, Expected::original},
                                        {Step::promoted, Expected::original},
                                        {Step::switched, Expected::migrated},
                                        {Step::replacedRemoved, Expected::migrated},
                                        {Step::stagingRemoved, Expected::migrated},
                                        {Step::recorded, Expected::migrated}});
}

TEST_F(LeftoversTest, AMoveBackKilledAtAnyStepIsSettledByTheNextCommand) {
  killAtEverySteps(Direction::back, {{Step::started, Expected::migrated},
                                     {Step::rehearsed, Expected::migrated},
                                     {Step::stagingCreated, Expected::migrated},
                                     {Step::copied, Expected::migrated},
                                     {Step::verified, Expected::migrated},
                                     {Step::flushed, Expected::migrated},
                                     {Step::switched, Expected::original},
                                     {Step::replacedRemoved, Expected::original},
                                     {Step::stagingRemoved, Expected::original},
                                     {Step::recorded, Expected::original}});
}

TEST_F(LeftoversTest, RunsKilledAtRandomMomentsEndWhole) {
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < 8; ++round) {
    const bool back = round % 2 == 1;
    const std::string item = makeItem("random-" + std::to_string(round));
    const auto before = fullManifest(item);
    if (back) {
      ASSERT_EQ(corvane({"migrate", item, "--to", external_->mountPoint(), "--yes"}).exitStatus, 0);
    }
    const std::vector<std::string> arguments =
        back ? std::vector<std::string>{"back", item, "--disk", external_->mountPoint(), "--yes"}
             : std::vector<std::string>{"migrate", item, "--to", external_->mountPoint(), "--yes"};
    const auto delay = std::uniform_int_distribution<int>(0, 400)(random);
    const std::string output = internal_->child("killed-run.txt");
    const pid_t pid = spawnCorvane(arguments, environment(), output);
    std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    killAndReap(pid);
    const std::string settled = settleWith("doctor");
    expectWhole(item, before, Expected::either,
                (back ? "move back" : "migration") + std::string(" killed after ") + std::to_string(delay) +
                    " ms; it printed:\n" + readFile(output) + "\ndoctor printed:\n" + settled);
  }
}

TEST_F(LeftoversTest, AnUpdatedItemReMigratesKeepingItsPreviousCopyAsAVersion) {
  const std::string app = home_ + "/Applications/Editor.app";
  writeFile(app + "/Contents/Info.plist", "<plist>1.0</plist>\n");
  writeFile(app + "/Contents/MacOS/editor", "version one\n", 0755);
  ASSERT_EQ(corvane({"migrate", app, "--to", external_->mountPoint(), "--yes"}).exitStatus, 0);
  const std::string copy = copyOf(app);

  // The updater deletes the link and installs a fresh bundle in its place.
  ASSERT_EQ(unlink(app.c_str()), 0);
  writeFile(app + "/Contents/Info.plist", "<plist>2.0</plist>\n");
  writeFile(app + "/Contents/MacOS/editor", "version two\n", 0755);
  const auto doctor = corvane({"doctor", "--disk", external_->mountPoint(), "--json"});
  EXPECT_NE(doctor.standardOutput.find("replacedLink"), std::string::npos) << doctor.standardOutput;

  // Doctor's repair is the migration of the new item, as `corvane migrate` of it would run.
  const auto again = corvane({"doctor", "--disk", external_->mountPoint(), "--fix", "--yes"});
  ASSERT_EQ(again.exitStatus, 0) << again.standardOutput << again.standardError;
  EXPECT_EQ(readFile(copy + "/Contents/MacOS/editor"), "version two\n");
  const auto listed =
      nlohmann::json::parse(corvane({"list", "--disk", external_->mountPoint(), "--json"}).standardOutput);
  ASSERT_EQ(listed.size(), 1u);
  ASSERT_EQ(listed[0]["backups"].size(), 1u) << listed.dump();
  const std::string version = listed[0]["backups"][0]["path"];
  EXPECT_NE(version.find("Editor_backup_"), std::string::npos);
  EXPECT_EQ(readFile(version + "/Contents/MacOS/editor"), "version one\n");

  // Uninstalling with its versions names them in the question and removes them with the copy.
  const auto declined =
      runCorvane({"--lang", "en", "uninstall", "Editor.app", "--disk", external_->mountPoint(), "--with-versions"},
                 {.environment = environment(), .standardInput = "n\n", .onTerminal = true});
  EXPECT_NE(declined.standardOutput.find(version), std::string::npos) << declined.standardOutput;
  EXPECT_TRUE(MigrationEntry::read(version, AT_FDCWD));
  const auto removed =
      corvane({"uninstall", "Editor.app", "--disk", external_->mountPoint(), "--with-versions", "--yes"});
  EXPECT_EQ(removed.exitStatus, 0) << removed.standardOutput << removed.standardError;
  EXPECT_FALSE(MigrationEntry::read(version, AT_FDCWD));
  EXPECT_FALSE(MigrationEntry::read(copy, AT_FDCWD));
}

// Leftovers no journal vouches for: each is repaired only where the repair provably loses
// nothing, and the rest is named and left alone.
TEST_F(LeftoversTest, DoctorRepairsOnlyWhatItCanProveAndNamesTheRest) {
  const std::string disk = external_->mountPoint();
  const std::string id = "0C1D2E3F-4A5B-4C6D-8E7F-101112131415";
  // A staging folder with half a copy and no journal entry.
  const std::string staging = disk + "/Directories" + home_ + "/.corvane-transfer-" + id;
  writeFile(staging + "/half/file", "partial");
  // Two rehearsal folders: one as the probe leaves it, one holding a file of someone else's.
  const std::string rehearsal = home_ + "/.corvane-access-" + id;
  makeDirectories(rehearsal + "/b");
  symlink(home_.c_str(), (rehearsal + "/link").c_str());
  const std::string foreign = home_ + "/.corvane-access-1C1D2E3F-4A5B-4C6D-8E7F-101112131415";
  writeFile(foreign + "/a/notes", "mine");
  // Two items moved, each with its original kept beside the link: one equal to its copy, one
  // changed since (it must stay).
  const std::string same = makeItem("same");
  const std::string changed = makeItem("changed");
  for (const auto& item : {same, changed}) {
    ASSERT_EQ(corvane({"migrate", item, "--to", disk, "--keep-original", "--yes"}).exitStatus, 0);
  }
  auto keptOf = [&](const std::string& item) {
    for (const auto& entry : std::filesystem::directory_iterator(home_)) {
      const std::string path = entry.path().string();
      if (path.starts_with(item + ".corvane_backup_")) return path;
    }
    return std::string();
  };
  const std::string keptSame = keptOf(same);
  const std::string keptChanged = keptOf(changed);
  ASSERT_FALSE(keptSame.empty());
  writeFile(keptChanged + "/data/file0", "edited after the move");
  // A record whose copy vanished, a copy whose record vanished, an empty chain, and a link
  // into a disk that is not plugged in.
  const std::string lost = makeItem("lost");
  const std::string orphan = makeItem("orphan");
  for (const auto& item : {lost, orphan}) ASSERT_EQ(corvane({"migrate", item, "--to", disk, "--yes"}).exitStatus, 0);
  removeTreeForcefully(copyOf(lost));
  auto records = nlohmann::json::parse(readFile(disk + "/.corvane/migrated_apps.json"));
  // (the record file's layout is the catalogue's; only the orphan's entry is dropped here)
  for (auto it = records.begin(); it != records.end();) {
    it = (*it).dump().find("orphan") != std::string::npos ? records.erase(it) : it + 1;
  }
  writeFile(disk + "/.corvane/migrated_apps.json", records.dump());
  // Empty folders mirroring a folder of this system go; empty folders inside a retained version,
  // or mirroring nothing that stands here, may be someone's data and stay.
  makeDirectories(home_ + "/old/empty");
  makeDirectories(disk + "/Directories" + home_ + "/old/empty/chain");
  const std::string versionEmpty = copyOf(orphan) + "_backup_20250101_000000/empty";
  makeDirectories(versionEmpty);
  makeDirectories(disk + "/Directories/nowhere/empty");
  // A forged journal entry that calls a folder of the user's its copy, with that folder's identity.
  const std::string victim = makeItem("victim");
  const std::string decoy = makeItem("decoy");
  {
    MigrationJournalEntry forged;
    forged.id = "2C1D2E3F-4A5B-4C6D-8E7F-101112131415";
    forged.disk = disk;
    forged.name = "decoy";
    forged.source = decoy;
    forged.destination = victim;
    forged.step = MigrationJournal::Step::promoted;
    const auto identityOf = [](const std::string& path) { return MigrationEntry::read(path, AT_FDCWD)->identity(); };
    forged.sourceIdentity = identityOf(decoy);
    forged.payloadIdentity = identityOf(victim);
    writeFile(MigrationJournal::directoryOf(disk) + "/" + forged.id + ".json", MigrationJournal::toJson(forged));
  }
  const auto victimBefore = fullManifest(victim);
  const std::string roots = internal_->child("volumes");
  makeDirectories(roots);
  symlink((roots + "/Gone/Directories/photos").c_str(), (home_ + "/photos").c_str());

  auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--lang", "en"});
    auto environment = this->environment();
    environment.emplace_back("CORVANE_VOLUMES_ROOTS", roots);
    return runCorvane(arguments, {.environment = environment});
  };
  const auto found = nlohmann::json::parse(run({"doctor", "--json"}).standardOutput);
  std::map<std::string, int> kinds;
  for (const auto& finding : found) ++kinds[finding["kind"].get<std::string>()];
  EXPECT_EQ(kinds["diskAbsent"], 1) << found.dump(1);

  const auto fixed = run({"doctor", "--disk", disk, "--fix", "--yes"});
  EXPECT_EQ(fixed.exitStatus, 3) << fixed.standardOutput;  // some findings have no repair
  EXPECT_TRUE(MigrationEntry::read(staging + "/half/file", AT_FDCWD)) << "unvouched staging stays";
  EXPECT_FALSE(MigrationEntry::read(rehearsal, AT_FDCWD));
  EXPECT_EQ(readFile(foreign + "/a/notes"), "mine");
  EXPECT_FALSE(MigrationEntry::read(keptSame, AT_FDCWD));
  EXPECT_EQ(readFile(keptChanged + "/data/file0"), "edited after the move");
  EXPECT_FALSE(MigrationEntry::read(lost, AT_FDCWD)) << "the dangling link went with its record";
  EXPECT_TRUE(recorded(orphan)) << "the linked copy was adopted";
  EXPECT_FALSE(recorded(lost));
  EXPECT_FALSE(MigrationEntry::read(disk + "/Directories" + home_ + "/old", AT_FDCWD));
  EXPECT_TRUE(MigrationEntry::read(versionEmpty, AT_FDCWD));
  EXPECT_TRUE(MigrationEntry::read(disk + "/Directories/nowhere/empty", AT_FDCWD));
  EXPECT_EQ(fullManifest(victim), victimBefore);
  const auto after = nlohmann::json::parse(corvane({"doctor", "--disk", disk, "--json"}).standardOutput);
  std::set<std::string> left;
  for (const auto& finding : after)
    left.insert(finding["kind"].get<std::string>() + " " + finding["path"].get<std::string>());
  EXPECT_EQ(left, (std::set<std::string>{"orphanStaging " + staging, "orphanRehearsal " + foreign,
                                         "keptOriginal " + keptChanged, "interruptedTransfer " + decoy}));
}

}  // namespace
}  // namespace corvane
