#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>

#include "engine/migration_copy_workload.h"
#include "engine/migration_integrity_verifier.h"
#include "engine/migration_issue.h"
#include "engine/migration_transfer.h"
#include "engine/migration_socket_probe.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/sample_tree.h"
#include "fixtures/test_volume.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/volume.h"
#include "support/paths.h"

namespace corvane {
namespace {

MigrationManifest scanned(const std::string& root) {
  return MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
}

// Answers every question with "later" and never authorizes: a transfer that would need either
// is deferred.
class RefusingPrompter final : public MigrationPreflightPrompter {
 public:
  MigrationPreflightChoice choose(const std::vector<MigrationRuntimeBlocker>&) override {
    return MigrationPreflightChoice::later;
  }
  bool authorize(const std::string&) override { return false; }
  void alert(const std::string&, const std::string&) override {}
};

// Everything a stored manifest says about the source except change times, which reading a
// tree may not move but a kept original's rename does.
std::map<std::string, std::string> contentsOf(const std::string& root) {
  std::map<std::string, std::string> contents;
  for (const auto& [relative, entry] : scanned(root)) {
    std::string text = std::string(kindName(entry.kind)) + " " + std::to_string(entry.mode);
    if (entry.kind == MigrationEntry::Kind::regular) text += " " + readFile(root + "/" + relative);
    if (entry.link) text += " -> " + *entry.link;
    contents[relative] = text;
  }
  return contents;
}

bool hasStagingLeft(const std::string& directory) {
  DIR* dir = opendir(directory.c_str());
  if (!dir) return false;
  bool found = false;
  while (dirent* item = readdir(dir)) found |= std::string(item->d_name).rfind(".corvane-transfer-", 0) == 0;
  closedir(dir);
  return found;
}

class TransferTest : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      internal_ = TestVolume::create(VolumeKind::ext4);
      external_ = TestVolume::create(VolumeKind::ext4);
    } catch (const VolumeUnavailable& unavailable) {
      GTEST_SKIP() << "needs two ext4 volumes: " << unavailable.what();
    }
    source_ = internal_->child("Users/me/Project");
    destination_ = external_->child("Directories/Users/me/Project");
    buildSampleTree(source_, {.fifo = true, .staleSocket = true, .sparseFile = true, .extendedAttributes = true});
    writeFile(internal_->child("Users/me/outside.txt"), "outside");
    makeDirectories(parentPath(destination_));
    before_ = contentsOf(source_);
  }

  MigrationTransfer::Configuration configuration() {
    MigrationTransfer::Configuration result;
    result.prompter = &prompter_;
    result.services = MigrationPreflight::defaultServices();
    // The socket probe runs the real binary (this test program is not it).
    result.services.probe = MigrationSocketProbe::probeWith(std::string(corvaneBinaryPath()));
    result.makeAccess = [](const std::string& path) { return std::make_unique<MigrationAccess>(path); };
    result.checkUsage = [this](const std::string& source, const MigrationManifest& manifest) {
      if (duringCheck_) duringCheck_(source, manifest);
    };
    return result;
  }

  MigrationTransfer::Result run(MigrationTransfer::Placement placement = MigrationTransfer::Placement::migrate,
                                RetainOriginal retain = RetainOriginal::no) {
    MigrationItemProgress item;
    item.name = "item";
    MigrationProgressTracker tracker({item});
    MigrationTransfer transfer(configuration());
    const std::string from = placement == MigrationTransfer::Placement::migrate ? source_ : destination_;
    const std::string to = placement == MigrationTransfer::Placement::migrate ? destination_ : source_;
    auto result = transfer.transfer(from, to, placement, tracker, "item", retain, {},
                                    [&](const std::string& key, const std::vector<std::string>&) { log_.push_back(key); });
    lastProgress_ = tracker.current().front();
    return result;
  }

  std::string failureKey(const std::function<void()>& action) {
    try {
      action();
    } catch (const MigrationTransfer::Failure& failure) {
      try {
        failure.rethrowCause();
      } catch (const MigrationIssue& issue) {
        return issue.key();
      } catch (const platform::PosixError& error) {
        return "errno " + std::to_string(error.errnoValue());
      }
    }
    return "";
  }

  void expectSourceUntouched() {
    auto entry = MigrationEntry::read(source_, AT_FDCWD);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->kind, MigrationEntry::Kind::directory);
    EXPECT_TRUE(contentsOf(source_) == before_) << "the source changed";
    EXPECT_FALSE(hasStagingLeft(parentPath(destination_)));
    EXPECT_FALSE(MigrationEntry::read(destination_, AT_FDCWD));
  }

  std::unique_ptr<TestVolume> internal_;
  std::unique_ptr<TestVolume> external_;
  std::string source_;
  std::string destination_;
  std::map<std::string, std::string> before_;
  RefusingPrompter prompter_;
  std::function<void(const std::string&, const MigrationManifest&)> duringCheck_;
  std::vector<std::string> log_;
  MigrationItemProgress lastProgress_;
};

TEST_F(TransferTest, MigratesAndComesBackExactly) {
  run();
  auto link = MigrationEntry::read(source_, AT_FDCWD);
  ASSERT_TRUE(link);
  EXPECT_EQ(link->kind, MigrationEntry::Kind::symbolicLink);
  EXPECT_EQ(link->link, destination_);
  EXPECT_FALSE(hasStagingLeft(parentPath(destination_)));
  EXPECT_EQ(readFile(source_ + "/Contents/Resources/deep/file9.txt"), readFile(destination_ + "/Contents/Resources/deep/file9.txt"));
  EXPECT_EQ(lastProgress_.phase, MigrationItemProgress::Phase::done);
  EXPECT_EQ(lastProgress_.copiedBytes, lastProgress_.totalBytes);
  EXPECT_GT(lastProgress_.totalBytes, 0);
  // The stale socket was left out of the copy, and the log said so.
  EXPECT_FALSE(MigrationEntry::read(destination_ + "/Contents/stale.sock", AT_FDCWD));
  EXPECT_NE(std::find(log_.begin(), log_.end(), "migration.preflight.omitted"), log_.end());
  EXPECT_NE(std::find(log_.begin(), log_.end(), "log.symlink_success"), log_.end());

  // And back: the link is replaced by a verified copy, the external copy is removed.
  before_.erase("Contents/stale.sock");
  run(MigrationTransfer::Placement::restore);
  auto restored = MigrationEntry::read(source_, AT_FDCWD);
  ASSERT_TRUE(restored);
  EXPECT_EQ(restored->kind, MigrationEntry::Kind::directory);
  auto after = contentsOf(source_);
  // The climbing link came back with the absolute target it was given on the way out.
  before_.erase("Contents/Resources/deep/climbs-out");
  after.erase("Contents/Resources/deep/climbs-out");
  EXPECT_TRUE(after == before_) << "the item did not come back as it was";
  EXPECT_FALSE(MigrationEntry::read(destination_, AT_FDCWD));
  EXPECT_FALSE(hasStagingLeft(parentPath(source_)));
}

TEST_F(TransferTest, KeepingTheOriginalLeavesItBesideTheLink) {
  auto result = run(MigrationTransfer::Placement::migrate, RetainOriginal::yes);
  ASSERT_TRUE(result.retainedSource);
  ASSERT_TRUE(result.retainedPath);
  EXPECT_EQ(result.retentionReason, "migration.transfer.source_retained");
  EXPECT_TRUE(contentsOf(*result.retainedPath) == before_);
  EXPECT_EQ(MigrationEntry::read(source_, AT_FDCWD)->kind, MigrationEntry::Kind::symbolicLink);
}

TEST_F(TransferTest, SourceChangedAfterTheScanRollsBackWithTheSourceIntact) {
  duringCheck_ = [&](const std::string&, const MigrationManifest&) { unlink((source_ + "/Contents/Info.plist").c_str()); };
  before_.erase("Contents/Info.plist");
  EXPECT_EQ(failureKey([&] { run(); }), "error.migration_source_changed");
  expectSourceUntouched();
  EXPECT_NE(std::find(log_.begin(), log_.end(), "migration.safety.rolled_back"), log_.end());
}

TEST_F(TransferTest, FileGrowingAfterTheScanIsCaught) {
  const std::string file = source_ + "/Contents/Resources/deep/file4.txt";
  duringCheck_ = [&](const std::string&, const MigrationManifest&) { writeFile(file, readFile(file) + "appended"); };
  EXPECT_EQ(failureKey([&] { run(); }), "error.migration_source_changed");
  before_ = contentsOf(source_);
  expectSourceUntouched();
}

TEST_F(TransferTest, DestinationFillingUpDuringTheCopyRollsBack) {
  // tmpfs keeps no blocks in reserve, so what the space check sees is all there is.
  auto small = TestVolume::create(VolumeKind::tmpfs, 64 << 20);
  writeFile(source_ + "/big.bin", std::string(24 << 20, 'x'));
  // A hole counts in the space check but takes nothing on the medium: it would leave room.
  unlink((source_ + "/Contents/sparse.bin").c_str());
  before_ = contentsOf(source_);
  destination_ = small->child("Project");
  // The data's size, rounded up to one page, stays free: the space check counts bytes and
  // passes, but every small file takes a whole page, so the copy runs out part of the way.
  duringCheck_ = [&](const std::string&, const MigrationManifest& manifest) {
    const std::int64_t page = sysconf(_SC_PAGESIZE);
    const std::int64_t room = (MigrationCopyWorkload(manifest, {}).bytes + page - 1) / page * page;
    const std::int64_t free = platform::availableCapacity(small->mountPoint());
    ASSERT_GT(free, room);
    const int fd = open(small->child("filler").c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(posix_fallocate(fd, 0, free - room), 0);
    close(fd);
    ASSERT_GE(platform::availableCapacity(small->mountPoint()), MigrationCopyWorkload(manifest, {}).bytes);
  };
  EXPECT_EQ(failureKey([&] { run(); }), "errno " + std::to_string(ENOSPC));
  expectSourceUntouched();
  EXPECT_FALSE(hasStagingLeft(small->mountPoint()));
  std::string said;
  for (const auto& key : log_) said += key + "\n";
  EXPECT_NE(std::find(log_.begin(), log_.end(), "migration.safety.rolled_back"), log_.end()) << said;
}

TEST_F(TransferTest, TooSmallOrIncapableDestinationsAreRefusedBeforeCopying) {
  auto small = TestVolume::create(VolumeKind::ext4, 8 << 20);
  writeFile(source_ + "/big.bin", std::string(16 << 20, 'x'));
  before_ = contentsOf(source_);
  destination_ = small->child("Project");
  EXPECT_EQ(failureKey([&] { run(); }), "migration.preflight.space");
  expectSourceUntouched();

  auto fat = TestVolume::create(VolumeKind::fat);
  destination_ = fat->child("Project");
  EXPECT_EQ(failureKey([&] { run(); }), "migration.preflight.filesystem");
  expectSourceUntouched();
}

TEST_F(TransferTest, LiveBlockerDefersWithoutTouchingAnything) {
  duringCheck_ = [](const std::string& source, const MigrationManifest&) {
    throw MigrationIssue("migration.preflight.deferred", source);
  };
  EXPECT_EQ(failureKey([&] { run(); }), "migration.preflight.deferred");
  expectSourceUntouched();
}

TEST_F(TransferTest, ExistingDestinationAndOverlappingPathsAreRefused) {
  makeDirectories(destination_);
  EXPECT_EQ(failureKey([&] { run(); }), "migration.preflight.target_exists");
  rmdir(destination_.c_str());
  destination_ = source_ + "/inside";
  EXPECT_EQ(failureKey([&] { run(); }), "error.migration_overlapping_paths");
  EXPECT_TRUE(contentsOf(source_) == before_) << "the source changed";
}

}  // namespace
}  // namespace corvane
