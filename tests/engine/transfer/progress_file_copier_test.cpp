// What a copy plans (workload, rewritten links) and does between real volumes, and its staging area.
#include "engine/transfer/progress_file_copier.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/item_test_support.h"
#include "engine/manifest/migration_copy_workload.h"
#include "engine/manifest/migration_link_plan.h"
#include "engine/manifest/migration_snapshot.h"
#include "engine/verify/migration_integrity_verifier.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"

namespace corvane {
namespace {

platform::FileStatus statOf(const std::string& path) { return platform::statNoFollow(AT_FDCWD, path).value(); }

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
    writeFile(from_->child("home/outside.txt"), "outside");
  }
  void copy(const std::set<std::string>& inactive = {}) {
    manifest_ = scanned(source_);
    staging_ =
        std::make_unique<MigrationStagingArea>(source_, to_->child("Applications/Sample.app"), to_->mountPoint());
    ProgressFileCopier::copy(source_, staging_->payload(), manifest_, inactive,
                             MigrationLinkPlan::relocatedTargets(source_, manifest_), *staging_,
                             [&](const MigrationCopyUpdate& update) { updates_.push_back(update); });
  }

  std::unique_ptr<TestVolume> from_, to_;
  std::string source_;
  MigrationManifest manifest_;
  std::unique_ptr<MigrationStagingArea> staging_;
  std::vector<MigrationCopyUpdate> updates_;
};

TEST_F(CopierTest, CopyKeepsEveryPropertyOfEveryObjectAcrossVolumes) {
  buildSampleTree(
      source_,
      {.fifo = true, .staleSocket = true, .sparseFile = true, .extendedAttributes = true, .accessControlList = true});
  ASSERT_EQ(chown((source_ + "/Contents/Resources/deep/file7.txt").c_str(), 65534, 65534), 0);
  ASSERT_EQ(chmod((source_ + "/Contents/MacOS").c_str(), 0555), 0);  // read-only directory
  struct timespec times[2] = {{1500000000, 1}, {1600000000, 999999999}};
  ASSERT_EQ(utimensat(AT_FDCWD, (source_ + "/Contents/Resources").c_str(), times, 0), 0);
  writeFile(source_ + "/big.bin", std::string(3 << 20, 'b'));
  ASSERT_EQ(link((source_ + "/big.bin").c_str(), (source_ + "/big-again.bin").c_str()), 0);
  const std::set<std::string> inactive{"Contents/stale.sock"};
  copy(inactive);
  const std::string payload = staging_->payload();
  // Kinds, bytes, hard-link groups and (planned) link texts; then what the verifier leaves out.
  MigrationVerificationOptions verification;
  verification.inactiveSockets = inactive;
  MigrationIntegrityVerifier::verify(source_, payload, manifest_, verification);
  EXPECT_EQ(*entryAt(payload + "/Contents/Resources/deep/climbs-out")->link, from_->child("home/outside.txt"));
  const auto copied = scanned(payload);
  EXPECT_EQ(copied.size(), manifest_.size() - inactive.size());
  const auto relocated = MigrationLinkPlan::relocatedTargets(source_, manifest_);
  for (const auto& [relative, copy] : copied) {
    if (relocated.count(relative)) continue;  // a new link
    const auto& original = manifest_.at(relative);
    const std::string path = relative.empty() ? "" : "/" + relative;
    EXPECT_EQ(copy.mode, original.mode) << relative;
    if (copy.kind != MigrationEntry::Kind::directory) {
      EXPECT_EQ(copy.modifiedSeconds, original.modifiedSeconds) << relative;
      EXPECT_EQ(copy.modifiedNanoseconds, original.modifiedNanoseconds) << relative;
    }
    EXPECT_EQ(statOf(payload + path).uid, statOf(source_ + path).uid) << relative;
    EXPECT_EQ(statOf(payload + path).gid, statOf(source_ + path).gid) << relative;
  }
  // Directory times are set after their children were written; holes stay holes.
  EXPECT_EQ(statOf(payload + "/Contents/Resources").modified, (platform::FileTime{1600000000, 999999999}));
  EXPECT_LT(statOf(payload + "/Contents/sparse.bin").allocatedBytes, 1 << 20);
  EXPECT_EQ(platform::readExtendedAttribute(payload + "/Contents/Info.plist", "user.corvane.test"),
            std::string("value\0with nul", 14));
  EXPECT_EQ(platform::readExtendedAttribute(payload + "/Contents/Resources", "user.corvane.dir"),
            "directory attribute");
  EXPECT_TRUE(platform::hasExtendedAccessControlList(payload + "/Contents/Resources/deep/file2.txt"));
  // Progress never goes back and ends at the workload, hard-linked data credited once.
  ASSERT_FALSE(updates_.empty());
  for (std::size_t i = 1; i < updates_.size(); ++i) {
    EXPECT_GE(updates_[i].bytes, updates_[i - 1].bytes);
    EXPECT_GE(updates_[i].entries, updates_[i - 1].entries);
  }
  const MigrationCopyWorkload workload(manifest_, inactive);
  EXPECT_EQ(updates_.back().bytes, workload.bytes);
  EXPECT_EQ(updates_.back().entries, workload.entries);
  // A socket nobody declared inactive stops the copy; all it made goes with the staging area.
  staging_->discardAfterRollback();
  EXPECT_EQ(issueKeyOf([&] { copy({}); }), "migration.preflight.runtime");
  staging_->discardAfterRollback();
  EXPECT_FALSE(entryAt(staging_->root()));
}

TEST_F(CopierTest, ACancelledCopyIsDiscardedWholeAndNoCopyMergesIntoAnExistingTree) {
  buildSampleTree(source_);
  manifest_ = scanned(source_);
  MigrationStagingArea cancelled(source_, to_->child("Sample.app"), to_->mountPoint());
  int files = 0;
  EXPECT_THROW(ProgressFileCopier::copy(source_, cancelled.payload(), manifest_, {}, {}, cancelled, {},
                                        [&] { return ++files > 5; }),
               platform::PosixError);
  cancelled.discardAfterRollback();
  EXPECT_FALSE(entryAt(cancelled.root()));
  MigrationStagingArea staging(source_, to_->child("Sample.app"), to_->mountPoint());
  writeFile(staging.payload() + "/someone-elses", "keep");
  try {
    ProgressFileCopier::copy(source_, staging.payload(), manifest_, {}, {}, staging, {});
    FAIL();
  } catch (const platform::PosixError& error) {
    EXPECT_EQ(error.errnoValue(), EEXIST);
  }
  EXPECT_EQ(readFile(staging.payload() + "/someone-elses"), "keep");
}

TEST(CopyWorkloadTest, HardLinksArePaidOnceAndInactiveSocketsAreNotEntries) {
  TemporaryDirectory dir;
  const std::string root = dir.child("item");
  writeFile(root + "/ten", "0123456789");
  ASSERT_EQ(link((root + "/ten").c_str(), (root + "/ten-again").c_str()), 0);
  makeStaleSocket(root + "/s.sock");
  auto manifest = scanned(root);
  MigrationCopyWorkload workload(manifest, {"s.sock", "not-in-manifest"});
  EXPECT_EQ(workload.bytes, 10);
  EXPECT_EQ(workload.totalBytes, 20);
  EXPECT_EQ(workload.entries, 3);  // root and the two names; the socket is left out
}

// Only links whose resolution climbs out of the item are rewritten, to the absolute place they
// reach; chains through inner links are followed (at most 40 links), cycles end without a rewrite.
TEST(LinkPlanTest, OnlyLinksThatClimbOutOfTheItemAreRewritten) {
  TemporaryDirectory dir;
  const std::string home = dir.child("home"), root = home + "/item";
  for (const auto& directory : {root + "/a/b", root + "/d", home + "/shared"}) makeDirectories(directory);
  writeFile(root + "/x", "inside");
  writeFile(home + "/x", "outside");
  std::vector<std::pair<std::string, std::string>> links = {
      {"a/b/stays", "../../x"},       // a/b -> a -> root: x, inside
      {"climbs", "../x"},             // from the root: outside
      {"a/../sibling", "../shared"},  // written as a/../sibling == sibling: climbs out
      {"absolute", "/etc/hostname"},  // absolute links stay as they are
      {"a/dotdot-inside", "b/../../x"},
      {"dots", "./././x"},
      {"to-b", "a/b"},                         // inner relative link to a directory
      {"through", "to-b/../../../x"},          // root/to-b -> a/b, then up three: climbs out
      {"abs-inside", root + "/a"},             // absolute link into the item itself
      {"via-absolute", "abs-inside/../../x"},  // resolves through the item: root/.. -> outside
      {"a/up-one", "../x"},                    // stays inside: root/x
      {"via-inner-ok", "a/up-one"},            // chain that ends inside
      {"uses-out", "climbs"},                  // points at a rewritten link: left alone
      {"loop-a", "loop-b"},
      {"loop-b", "loop-a"},
      {"through-loop", "loop-a/../../x"},
      {"via-long", "long1/../../x"},    // 41 inner links before the climb: not followed
      {"via-short", "short1/../../x"},  // 40: followed, and it climbs out
  };
  for (const auto& [name, length] : {std::pair<std::string, int>{"long", 41}, {"short", 40}}) {
    for (int i = 1; i <= length; ++i) {
      links.push_back({name + std::to_string(i), i < length ? name + std::to_string(i + 1) : "d"});
    }
  }
  for (const auto& [path, target] : links) ASSERT_EQ(symlink(target.c_str(), (root + "/" + path).c_str()), 0) << path;
  EXPECT_EQ(MigrationLinkPlan::relocatedTargets(root, scanned(root)),
            (std::map<std::string, std::string>{{"climbs", home + "/x"},
                                                {"sibling", home + "/shared"},
                                                {"through", home + "/x"},
                                                {"via-absolute", home + "/x"},
                                                {"via-short", home + "/x"}}));
}

// The staging area removes only what it recorded creating, and never a root swapped for another;
// alike when its records sit beside the source's manifest and when they are kept by path.
TEST(StagingAreaTest, RemovalStopsAtAnythingItDidNotCreate) {
  TemporaryDirectory dir;
  writeFile(dir.child("item/sub/ours"), "o");
  const MigrationManifest manifest =
      MigrationSnapshot::walk(dir.child("item"), RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
  for (const MigrationManifest* beside : {static_cast<const MigrationManifest*>(nullptr), &manifest}) {
    SCOPED_TRACE(beside ? "records beside the manifest" : "records by path");
    MigrationStagingArea staging(dir.child("item"), dir.child("item-copy"), dir.path(), beside);
    EXPECT_EQ(staging.root().rfind(dir.path() + "/.corvane-transfer-", 0), 0u);
    writeFile(staging.payload() + "/sub/ours", "o");
    staging.recordCreated(staging.payload() + "/sub/ours");
    writeFile(staging.payload() + "/sub/stranger", "s");  // not recorded
    EXPECT_EQ(issueKeyOf([&] { staging.discardAfterRollback(); }), "migration.safety.conflict");
    EXPECT_EQ(readFile(staging.payload() + "/sub/stranger"), "s");
    ASSERT_EQ(unlink((staging.payload() + "/sub/stranger").c_str()), 0);
    // A recorded file written to since is someone's data now.
    writeFile(staging.payload() + "/sub/ours", "changed since");
    EXPECT_EQ(issueKeyOf([&] { staging.discardAfterRollback(); }), "migration.safety.conflict");
    EXPECT_EQ(readFile(staging.payload() + "/sub/ours"), "changed since");
    // A recorded path that became another object is a conflict the moment it is recorded again.
    writeFile(staging.payload() + "/sub/replacement", "replaced");
    ASSERT_EQ(rename((staging.payload() + "/sub/replacement").c_str(), (staging.payload() + "/sub/ours").c_str()), 0);
    EXPECT_EQ(issueKeyOf([&] { staging.recordCreated(staging.payload() + "/sub/ours"); }), "migration.safety.conflict");
    EXPECT_EQ(readFile(staging.payload() + "/sub/ours"), "replaced");
    ASSERT_EQ(unlink((staging.payload() + "/sub/ours").c_str()), 0);
    // What it made and nothing else: everything goes.
    writeFile(staging.payload() + "/sub/fresh", "f");
    staging.recordCreated(staging.payload() + "/sub/fresh");
    EXPECT_NO_THROW(staging.discardAfterRollback());
    EXPECT_FALSE(MigrationEntry::read(staging.root(), AT_FDCWD));
  }
  MigrationStagingArea other(dir.child("item"), dir.child("dest/item"), dir.path());
  makeDirectories(other.payload());
  other.recordCreated(other.payload());
  // Someone swaps in another directory of the same name holding their own data.
  ASSERT_EQ(rename(other.root().c_str(), dir.child("moved-away").c_str()), 0);
  writeFile(other.root() + "/theirs", "precious");
  EXPECT_EQ(issueKeyOf([&] { other.discardAfterRollback(); }), "migration.safety.conflict");
  EXPECT_EQ(readFile(other.root() + "/theirs"), "precious");
}

}  // namespace
}  // namespace corvane
