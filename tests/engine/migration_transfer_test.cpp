// One item's transfer between two real ext4 volumes: there and back, keeping the original,
// sources that change under it, destinations that fill up or cannot take it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "engine/migration_copy_workload.h"
#include "engine/migration_socket_probe.h"
#include "engine/migration_test_support.h"
#include "engine/migration_transfer.h"
#include "fixtures/corvane_binary.h"
#include "fixtures/sample_tree.h"
#include "fixtures/test_volume.h"
#include "platform/posix_error.h"
#include "platform/volume.h"
#include "support/paths.h"

namespace corvane {
namespace {

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
    before_ = fullManifest(source_);
  }

  MigrationTransfer::Result run(RetainOriginal retain = RetainOriginal::no) {
    MigrationTransfer::Configuration configuration;
    configuration.prompter = &prompter_;
    configuration.services = MigrationPreflight::defaultServices();
    // The socket probe runs the real binary (this test program is not it).
    configuration.services.probe = MigrationSocketProbe::probeWith(std::string(corvaneBinaryPath()));
    configuration.makeAccess = [](const std::string& path) { return std::make_unique<MigrationAccess>(path); };
    configuration.checkUsage = [this](const std::string& source, const MigrationManifest& manifest) {
      if (duringCheck_) duringCheck_(source, manifest);
    };
    MigrationItemProgress item;
    item.name = "item";
    MigrationProgressTracker tracker({item});
    auto result = MigrationTransfer(configuration)
                      .transfer(source_, destination_, MigrationTransfer::Placement::migrate, tracker, "item", retain, {},
                                [&](const std::string& key, const std::vector<std::string>&) { log_.push_back(key); });
    lastProgress_ = tracker.current().front();
    return result;
  }

  // The key (or errno) of the cause of a migration's failure; empty when it succeeded.
  std::string failureKey() {
    try {
      run();
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

  bool logged(const std::string& key) const { return std::find(log_.begin(), log_.end(), key) != log_.end(); }

  void expectSourceUntouched() {
    EXPECT_EQ(fullManifest(source_), before_) << "the source changed";
    EXPECT_FALSE(hasStagingLeft(parentPath(destination_)));
    EXPECT_FALSE(MigrationEntry::read(destination_, AT_FDCWD));
  }

  std::unique_ptr<TestVolume> internal_, external_;
  std::string source_, destination_;
  std::map<std::string, std::string> before_;
  DeferringPrompter prompter_;
  std::function<void(const std::string&, const MigrationManifest&)> duringCheck_;
  std::vector<std::string> log_;
  MigrationItemProgress lastProgress_;
};

TEST_F(TransferTest, MigratesLeavingALinkOrKeepingTheOriginalBesideIt) {
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
  EXPECT_FALSE(MigrationEntry::read(destination_ + "/Contents/stale.sock", AT_FDCWD)) << "the stale socket is left out";
  EXPECT_TRUE(logged("migration.preflight.omitted"));
  EXPECT_TRUE(logged("log.symlink_success"));

  // A second item, keeping its original.
  source_ = internal_->child("Users/me/Second");
  destination_ = external_->child("Directories/Users/me/Second");
  buildSampleTree(source_, {.fifo = true, .sparseFile = true, .extendedAttributes = true});
  before_ = fullManifest(source_);
  auto result = run(RetainOriginal::yes);
  ASSERT_TRUE(result.retainedSource);
  ASSERT_TRUE(result.retainedPath);
  EXPECT_EQ(result.retentionReason, "migration.transfer.source_retained");
  EXPECT_EQ(fullManifest(*result.retainedPath), before_);
  EXPECT_EQ(MigrationEntry::read(source_, AT_FDCWD)->kind, MigrationEntry::Kind::symbolicLink);
}

TEST_F(TransferTest, SourceChangedOrGrowingAfterTheScanRollsBackWithTheSourceIntact) {
  // Each change happens after the scan; the state right after it is what must survive.
  duringCheck_ = [&](const std::string&, const MigrationManifest&) {
    unlink((source_ + "/Contents/Info.plist").c_str());
    before_ = fullManifest(source_);
  };
  EXPECT_EQ(failureKey(), "error.migration_source_changed");
  expectSourceUntouched();
  EXPECT_TRUE(logged("migration.safety.rolled_back"));

  const std::string file = source_ + "/Contents/Resources/deep/file4.txt";
  duringCheck_ = [&](const std::string&, const MigrationManifest&) {
    writeFile(file, readFile(file) + "appended");
    before_ = fullManifest(source_);
  };
  EXPECT_EQ(failureKey(), "error.migration_source_changed");
  expectSourceUntouched();
}

TEST_F(TransferTest, DestinationFillingUpDuringTheCopyRollsBack) {
  // tmpfs keeps no blocks in reserve, so what the space check sees is all there is.
  auto small = TestVolume::create(VolumeKind::tmpfs, 64 << 20);
  writeFile(source_ + "/big.bin", std::string(24 << 20, 'x'));
  // A hole counts in the space check but takes nothing on the medium: it would leave room.
  unlink((source_ + "/Contents/sparse.bin").c_str());
  before_ = fullManifest(source_);
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
  EXPECT_EQ(failureKey(), "errno " + std::to_string(ENOSPC));
  expectSourceUntouched();
  EXPECT_FALSE(hasStagingLeft(small->mountPoint()));
  EXPECT_TRUE(logged("migration.safety.rolled_back"));
}

TEST_F(TransferTest, RefusalsBeforeCopyingLeaveEverythingAsItWas) {
  duringCheck_ = [](const std::string& source, const MigrationManifest&) {
    throw MigrationIssue("migration.preflight.deferred", source);
  };
  EXPECT_EQ(failureKey(), "migration.preflight.deferred") << "a live blocker defers";
  expectSourceUntouched();
  duringCheck_ = nullptr;

  makeDirectories(destination_);
  EXPECT_EQ(failureKey(), "migration.preflight.target_exists");
  rmdir(destination_.c_str());
  destination_ = source_ + "/inside";
  EXPECT_EQ(failureKey(), "error.migration_overlapping_paths");
  EXPECT_EQ(fullManifest(source_), before_) << "the source changed";

  auto fat = TestVolume::create(VolumeKind::fat);
  destination_ = fat->child("Project");
  EXPECT_EQ(failureKey(), "migration.preflight.filesystem");
  expectSourceUntouched();

  auto small = TestVolume::create(VolumeKind::ext4, 8 << 20);
  writeFile(source_ + "/big.bin", std::string(16 << 20, 'x'));
  before_ = fullManifest(source_);
  destination_ = small->child("Project");
  EXPECT_EQ(failureKey(), "migration.preflight.space");
  expectSourceUntouched();
}

}  // namespace
}  // namespace corvane
