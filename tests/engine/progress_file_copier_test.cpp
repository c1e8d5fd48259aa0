#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/migration_copy_workload.h"
#include "engine/migration_integrity_verifier.h"
#include "engine/migration_issue.h"
#include "engine/migration_link_plan.h"
#include "engine/progress_file_copier.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"

namespace corvane {
namespace {

MigrationManifest scanTree(const std::string& root) {
  return MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
}

platform::FileStatus statOf(const std::string& path) {
  auto status = platform::statNoFollow(AT_FDCWD, path);
  if (!status) throw std::runtime_error("missing " + path);
  return *status;
}

// Copies `root` from one real volume to another, as a migration does.
class CopierTest : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      from_ = TestVolume::create(VolumeKind::ext4);
      to_ = TestVolume::create(VolumeKind::ext4);
    } catch (const VolumeUnavailable& unavailable) {
      GTEST_SKIP() << "needs two ext4 volumes: " << unavailable.what();
    }
    source_ = from_->child("home/Sample.app");
    makeDirectories(from_->child("home"));
    writeFile(from_->child("home/outside.txt"), "outside");
  }

  void copy(const std::set<std::string>& inactive = {}) {
    manifest_ = scanTree(source_);
    staging_ = std::make_unique<MigrationStagingArea>(source_, to_->child("Applications/Sample.app"), to_->mountPoint());
    ProgressFileCopier::copy(source_, staging_->payload(), manifest_, inactive,
                             MigrationLinkPlan::relocatedTargets(source_, manifest_), *staging_,
                             [&](const MigrationCopyUpdate& update) { updates_.push_back(update); });
  }

  std::unique_ptr<TestVolume> from_;
  std::unique_ptr<TestVolume> to_;
  std::string source_;
  MigrationManifest manifest_;
  std::unique_ptr<MigrationStagingArea> staging_;
  std::vector<MigrationCopyUpdate> updates_;
};

TEST_F(CopierTest, CopyKeepsEveryPropertyOfEveryObjectAcrossVolumes) {
  buildSampleTree(source_, {.fifo = true, .sparseFile = true, .extendedAttributes = true, .accessControlList = true});
  ASSERT_EQ(chown((source_ + "/Contents/Resources/deep/file7.txt").c_str(), 65534, 65534), 0);
  ASSERT_EQ(chmod((source_ + "/Contents/MacOS").c_str(), 0555), 0);  // read-only directory
  struct timespec times[2] = {{1500000000, 1}, {1600000000, 999999999}};
  ASSERT_EQ(utimensat(AT_FDCWD, (source_ + "/Contents/Resources").c_str(), times, 0), 0);
  copy();
  const std::string payload = staging_->payload();

  auto copied = scanTree(payload);
  ASSERT_EQ(copied.size(), manifest_.size());
  const auto relocated = MigrationLinkPlan::relocatedTargets(source_, manifest_);
  for (const auto& [relative, original] : manifest_) {
    SCOPED_TRACE(relative);
    if (relocated.count(relative)) continue;  // a new link with a new text, checked below
    const auto& copy = copied.at(relative);
    EXPECT_EQ(copy.kind, original.kind);
    EXPECT_EQ(copy.mode, original.mode);
    EXPECT_EQ(copy.size, original.size);
    if (original.kind != MigrationEntry::Kind::directory) {
      EXPECT_EQ(copy.modifiedSeconds, original.modifiedSeconds);
      EXPECT_EQ(copy.modifiedNanoseconds, original.modifiedNanoseconds);
    }
    const auto sourceStatus = statOf(source_ + (relative.empty() ? "" : "/" + relative));
    const auto copyStatus = statOf(payload + (relative.empty() ? "" : "/" + relative));
    EXPECT_EQ(copyStatus.uid, sourceStatus.uid);
    EXPECT_EQ(copyStatus.gid, sourceStatus.gid);
    if (original.kind == MigrationEntry::Kind::regular) {
      EXPECT_EQ(readFile(payload + "/" + relative), readFile(source_ + "/" + relative));
    }
  }
  // Directory times are set after their children were written.
  EXPECT_EQ(statOf(payload + "/Contents/Resources").modified, (platform::FileTime{1600000000, 999999999}));
  // Hard links stay one file; links are copied as links, the climbing one gets its new target.
  EXPECT_EQ(statOf(payload + "/Contents/hardlink.txt").inode, statOf(payload + "/Contents/Resources/deep/file3.txt").inode);
  EXPECT_EQ(copied.at("Contents/dangling").link, "missing-target");
  EXPECT_EQ(copied.at("Contents/Resources/inner-link").link, "deep/file1.txt");
  EXPECT_EQ(copied.at("Contents/Resources/deep/climbs-out").link, from_->child("home/outside.txt"));
  // Holes stay holes.
  EXPECT_LT(statOf(payload + "/Contents/sparse.bin").allocatedBytes, 1 << 20);
  // Attributes and ACLs.
  EXPECT_EQ(platform::readExtendedAttribute(payload + "/Contents/Info.plist", "user.corvane.test"),
            std::string("value\0with nul", 14));
  EXPECT_EQ(platform::readExtendedAttribute(payload + "/Contents/Resources", "user.corvane.dir"), "directory attribute");
  EXPECT_TRUE(platform::hasExtendedAccessControlList(payload + "/Contents/Resources/deep/file2.txt"));
  EXPECT_TRUE(S_ISFIFO(statOf(payload + "/Contents/pipe").mode));
}

TEST_F(CopierTest, ProgressNeverGoesBackAndCountsHardLinkedDataOnce) {
  buildSampleTree(source_);
  writeFile(source_ + "/big.bin", std::string(3 << 20, 'b'));
  ASSERT_EQ(link((source_ + "/big.bin").c_str(), (source_ + "/big-again.bin").c_str()), 0);
  copy();
  ASSERT_FALSE(updates_.empty());
  for (std::size_t i = 1; i < updates_.size(); ++i) {
    EXPECT_GE(updates_[i].bytes, updates_[i - 1].bytes);
    EXPECT_GE(updates_[i].entries, updates_[i - 1].entries);
  }
  const MigrationCopyWorkload workload(manifest_, {});
  EXPECT_EQ(updates_.back().bytes, workload.bytes);
  EXPECT_EQ(updates_.back().entries, workload.entries);
  std::int64_t largest = 0;
  for (const auto& update : updates_) largest = std::max(largest, update.bytes);
  EXPECT_EQ(largest, workload.bytes) << "bytes were credited beyond the data";
}

TEST_F(CopierTest, InactiveSocketsAreLeftOutAndAnyOtherSocketStopsTheCopy) {
  buildSampleTree(source_, {.staleSocket = true});
  copy({"Contents/stale.sock"});
  EXPECT_FALSE(platform::statNoFollow(AT_FDCWD, staging_->payload() + "/Contents/stale.sock"));
  staging_->discardAfterRollback();

  try {
    copy({});
    FAIL() << "a socket nobody declared inactive must stop the copy";
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.key(), "migration.preflight.runtime");
  }
  // Everything the stopped copy made was recorded and goes away with the staging area.
  staging_->discardAfterRollback();
  EXPECT_FALSE(platform::statNoFollow(AT_FDCWD, staging_->root()));
}

TEST_F(CopierTest, NeverMergesIntoAnExistingTree) {
  buildSampleTree(source_);
  manifest_ = scanTree(source_);
  MigrationStagingArea staging(source_, to_->child("Sample.app"), to_->mountPoint());
  makeDirectories(staging.payload());
  writeFile(staging.payload() + "/someone-elses", "keep");
  try {
    ProgressFileCopier::copy(source_, staging.payload(), manifest_, {}, {}, staging, {});
    FAIL();
  } catch (const platform::PosixError& error) {
    EXPECT_EQ(error.errnoValue(), EEXIST);
  }
  EXPECT_EQ(readFile(staging.payload() + "/someone-elses"), "keep");
}

TEST_F(CopierTest, CancellingStopsBetweenFilesAndLeavesOnlyRecordedEntries) {
  buildSampleTree(source_);
  manifest_ = scanTree(source_);
  MigrationStagingArea staging(source_, to_->child("Sample.app"), to_->mountPoint());
  int files = 0;
  EXPECT_THROW(ProgressFileCopier::copy(source_, staging.payload(), manifest_, {}, {}, staging, {},
                                        [&] { return ++files > 5; }),
               platform::PosixError);
  staging.discardAfterRollback();
  EXPECT_FALSE(platform::statNoFollow(AT_FDCWD, staging.root()));
}

TEST(StagingAreaTest, ReplacedStagingRootIsNeverDeleted) {
  TemporaryDirectory dir;
  makeDirectories(dir.child("item"));
  writeFile(dir.child("item/file"), "x");
  MigrationStagingArea staging(dir.child("item"), dir.child("dest/item"), dir.path());
  makeDirectories(staging.payload());
  staging.recordCreated(staging.payload());
  // Someone swaps in another directory of the same name holding their own data.
  ASSERT_EQ(rename(staging.root().c_str(), dir.child("moved-away").c_str()), 0);
  makeDirectories(staging.root());
  writeFile(staging.root() + "/theirs", "precious");
  try {
    staging.discardAfterRollback();
    FAIL();
  } catch (const MigrationIssue& issue) {
    EXPECT_EQ(issue.key(), "migration.safety.conflict");
  }
  EXPECT_EQ(readFile(staging.root() + "/theirs"), "precious");
}

TEST(StagingAreaTest, RemovalStopsAtAnythingItDidNotCreate) {
  TemporaryDirectory dir;
  makeDirectories(dir.child("item"));
  MigrationStagingArea staging(dir.child("item"), dir.child("item-copy"), dir.path());
  makeDirectories(staging.payload() + "/sub");
  writeFile(staging.payload() + "/sub/ours", "o");
  staging.recordCreated(staging.payload() + "/sub/ours");
  writeFile(staging.payload() + "/sub/stranger", "s");  // not recorded
  EXPECT_THROW(staging.discardAfterRollback(), MigrationIssue);
  EXPECT_EQ(readFile(staging.payload() + "/sub/stranger"), "s");
  // A recorded path that became another object is a conflict the moment it is recorded again.
  writeFile(staging.payload() + "/sub/replacement", "replaced");
  ASSERT_EQ(rename((staging.payload() + "/sub/replacement").c_str(), (staging.payload() + "/sub/ours").c_str()), 0);
  EXPECT_THROW(staging.recordCreated(staging.payload() + "/sub/ours"), MigrationIssue);
  EXPECT_EQ(staging.root().rfind(dir.path() + "/.corvane-transfer-", 0), 0u);
}

}  // namespace
}  // namespace corvane
