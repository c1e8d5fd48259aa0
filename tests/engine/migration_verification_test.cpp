#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "engine/migration_copy_workload.h"
#include "engine/migration_entry_repair.h"
#include "engine/migration_integrity_verifier.h"
#include "engine/migration_link_plan.h"
#include "engine/privileged_test_support.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/unique_fd.h"

namespace corvane {
namespace {

MigrationManifest scanned(const std::string& root) {
  return MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
}

MigrationVerificationOptions repairing() {
  MigrationVerificationOptions options;
  options.repair = MigrationEntryRepair::rebuild;
  return options;
}

// A source item in a temporary directory and its staged copy on a real volume.
struct StagedCopy {
  explicit StagedCopy(const TestVolume& volume, const SampleTreeOptions& tree = {}) {
    source = sourceDirectory.child("Item.app");
    buildSampleTree(source, tree);
    makeDirectories(volume.child("staging"));
    copy = volume.child("staging/Item.app");
  }
  // Copies as the migration's copier does: links that climb out of the item get their
  // resolved absolute target.
  void stage() {
    stageAsIs();
    for (const auto& [path, target] : MigrationLinkPlan::relocatedTargets(source, manifest)) {
      const std::string link = copy + "/" + path;
      if (::unlink(link.c_str()) != 0 || ::symlink(target.c_str(), link.c_str()) != 0) {
        throw std::runtime_error("cannot relocate " + link);
      }
    }
  }
  void stageAsIs() {
    manifest = scanned(source);
    copyTree(source, copy);
  }
  TemporaryDirectory sourceDirectory;
  std::string source;
  std::string copy;
  MigrationManifest manifest;
};

TEST(MigrationVerificationTest, AFaithfulCopyPassesWithEveryByteAndEntryCounted) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  StagedCopy staged(*volume, {.fifo = true, .sparseFile = true, .extendedAttributes = true});
  writeFile(staged.source + "/large.bin", patternedBytes(3 * 1048576 + 17, 1));
  staged.stage();

  MigrationVerificationOptions options = repairing();
  MigrationVerificationProgress last;
  std::vector<std::string> checked;
  std::vector<std::string> repaired;
  options.progress = [&](const MigrationVerificationProgress& progress) {
    EXPECT_GE(progress.bytes, last.bytes);
    EXPECT_GE(progress.entries, last.entries);
    last = progress;
  };
  options.checking = [&](const std::string& path) { checked.push_back(path); };
  options.repaired = [&](const std::string& path) { repaired.push_back(path); };
  MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, options);

  const MigrationCopyWorkload workload(staged.manifest, {});
  EXPECT_EQ(last.bytes, workload.bytes) << "hard-linked data is compared once";
  EXPECT_EQ(last.entries, workload.entries);
  EXPECT_EQ(checked.size(), staged.manifest.size());
  EXPECT_TRUE(repaired.empty());
}

TEST(MigrationVerificationTest, ComparesSizeBeforeContentsAndFindsADifferenceInTheLastByte) {
  TemporaryDirectory dir;
  const std::string contents = patternedBytes(2 * 1048576 + 5, 2);
  writeFile(dir.child("original"), contents);
  auto expected = *MigrationEntry::read(dir.child("original"), AT_FDCWD);

  writeFile(dir.child("short"), contents.substr(0, contents.size() - 1));
  std::int64_t read = 0;
  auto count = [&](std::int64_t length) { read += length; };
  EXPECT_FALSE(MigrationIntegrityVerifier::matches(dir.child("original"), dir.child("short"), expected, {}, count));
  EXPECT_EQ(read, 0) << "a short copy fails on its size before any byte is read";

  std::string lastByteDiffers = contents;
  lastByteDiffers.back() ^= 1;
  writeFile(dir.child("different"), lastByteDiffers);
  EXPECT_FALSE(MigrationIntegrityVerifier::matches(dir.child("original"), dir.child("different"), expected, {}, count));
  EXPECT_EQ(read, 2 * 1048576) << "the two whole chunks were equal; the last one was not";

  writeFile(dir.child("same"), contents);
  read = 0;
  EXPECT_TRUE(MigrationIntegrityVerifier::matches(dir.child("original"), dir.child("same"), expected, {}, count));
  EXPECT_EQ(read, static_cast<std::int64_t>(contents.size()));

  // The original replaced by another file of the same size is not the scanned source any more.
  writeFile(dir.child("replacement"), contents);
  ASSERT_EQ(::rename(dir.child("replacement").c_str(), dir.child("original").c_str()), 0);
  EXPECT_EQ(issueKeyOf([&] {
              MigrationIntegrityVerifier::matches(dir.child("original"), dir.child("same"), expected, {});
            }),
            "error.migration_source_changed");
}

// The copy is damaged on the device after it was written, while the page cache still holds
// the good bytes: only a verification that reads from the medium sees it.
TEST(MigrationVerificationTest, DamageBeneathThePageCacheIsFoundAndRepairedOnce) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  StagedCopy staged(*volume);
  const std::string payload = patternedBytes(256 * 1024, 3);
  writeFile(staged.source + "/Contents/payload.bin", payload);
  staged.stage();
  ASSERT_TRUE(damageOnDevice(*volume, payload.substr(0, 64)));
  ASSERT_EQ(readFile(staged.copy + "/Contents/payload.bin"), payload) << "the cached pages still look right";

  std::vector<std::string> repaired;
  MigrationVerificationOptions options = repairing();
  options.repaired = [&](const std::string& path) { repaired.push_back(path); };
  MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, options);
  EXPECT_EQ(repaired, std::vector<std::string>{"Contents/payload.bin"});
  EXPECT_EQ(readFile(staged.copy + "/Contents/payload.bin"), payload);
}

// Data still in the page cache has not reached the drive; the verification puts it there before
// it reads anything back.
TEST(MigrationVerificationTest, TheCopyIsFlushedToTheDeviceBeforeItIsRead) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  StagedCopy staged(*volume);
  staged.stage();
  const std::string late = patternedBytes(64 * 1024, 6);
  writeFile(staged.source + "/late.bin", late);
  writeFile(staged.copy + "/late.bin", late);
  staged.manifest = scanned(staged.source);
  if (deviceHolds(*volume, late.substr(0, 64))) GTEST_SKIP() << "the kernel wrote the data back on its own";

  MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, {});
  EXPECT_TRUE(deviceHolds(*volume, late.substr(0, 64)));
}

TEST(MigrationVerificationTest, DamageWithoutRepairFailsAtTheEntry) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  StagedCopy staged(*volume);
  const std::string payload = patternedBytes(128 * 1024, 4);
  writeFile(staged.source + "/Contents/payload.bin", payload);
  staged.stage();
  ASSERT_TRUE(damageOnDevice(*volume, payload.substr(0, 64)));
  EXPECT_EQ(issueKeyOf([&] {
              MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, {});
            }),
            "error.migration_copy_mismatch");
}

// A drive that loses the repaired data as well: the second check fails and no third repair
// is tried.
TEST(MigrationVerificationTest, ACopyDamagedAgainAfterItsRepairFails) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  StagedCopy staged(*volume);
  const std::string payload = patternedBytes(128 * 1024, 5);
  writeFile(staged.source + "/Contents/payload.bin", payload);
  staged.stage();
  ASSERT_TRUE(damageOnDevice(*volume, payload.substr(0, 64)));

  int repairs = 0;
  MigrationVerificationOptions options;
  options.repair = [&](const MigrationRepairRequest& request) {
    ++repairs;
    MigrationEntryRepair::rebuild(request);
    ASSERT_TRUE(damageOnDevice(*volume, payload.substr(0, 64)));
  };
  EXPECT_EQ(issueKeyOf([&] { MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, options); }),
            "error.migration_copy_mismatch");
  EXPECT_EQ(repairs, 1);
}

TEST(MigrationVerificationTest, ASplitHardLinkGroupIsFoundAndRelinked) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::xfs);
  StagedCopy staged(*volume);
  writeFile(staged.source + "/first", "shared contents\n");
  ASSERT_EQ(::link((staged.source + "/first").c_str(), (staged.source + "/second").c_str()), 0);
  staged.stage();
  // Same bytes, but a file of its own: the group is split in the copy.
  ASSERT_EQ(::unlink((staged.copy + "/second").c_str()), 0);
  writeFile(staged.copy + "/second", "shared contents\n");

  EXPECT_EQ(issueKeyOf([&] {
              MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, {});
            }),
            "error.migration_copy_mismatch");

  // Without hard links preserved the split copy is acceptable.
  MigrationVerificationOptions ignoring;
  ignoring.hardLinks = HardLinkPolicy::ignore;
  MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, ignoring);

  std::vector<std::string> repaired;
  MigrationVerificationOptions options = repairing();
  options.repaired = [&](const std::string& path) { repaired.push_back(path); };
  MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, options);
  EXPECT_EQ(repaired, std::vector<std::string>{"second"});
  EXPECT_EQ(MigrationEntry::read(staged.copy + "/first", AT_FDCWD)->identity(),
            MigrationEntry::read(staged.copy + "/second", AT_FDCWD)->identity());
}

TEST(MigrationVerificationTest, LinksMustCarryThePlannedTarget) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::btrfs);
  StagedCopy staged(*volume, {.symbolicLinks = false});
  writeFile(staged.sourceDirectory.child("outside.txt"), "outside\n");
  ASSERT_EQ(::symlink("../outside.txt", (staged.source + "/climbs-out").c_str()), 0);
  ASSERT_EQ(::symlink("Contents", (staged.source + "/stays-in").c_str()), 0);
  staged.stageAsIs();

  // cp kept the original relative text, which after the move would point next to the copy.
  EXPECT_EQ(issueKeyOf([&] {
              MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, {});
            }),
            "error.migration_copy_mismatch");

  std::vector<std::string> repaired;
  MigrationVerificationOptions options = repairing();
  options.repaired = [&](const std::string& path) { repaired.push_back(path); };
  MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, options);
  EXPECT_EQ(repaired, std::vector<std::string>{"climbs-out"});
  EXPECT_EQ(*MigrationEntry::read(staged.copy + "/climbs-out", AT_FDCWD)->link,
            staged.sourceDirectory.path() + "/outside.txt");

  // A link whose text was changed to something else entirely is wrong too, and repaired.
  ASSERT_EQ(::unlink((staged.copy + "/stays-in").c_str()), 0);
  ASSERT_EQ(::symlink("/etc", (staged.copy + "/stays-in").c_str()), 0);
  repaired.clear();
  MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, options);
  EXPECT_EQ(repaired, std::vector<std::string>{"stays-in"});
  EXPECT_EQ(*MigrationEntry::read(staged.copy + "/stays-in", AT_FDCWD)->link, "Contents");
}

TEST(MigrationVerificationTest, MissingAndWrongKindEntriesAreRebuilt) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  StagedCopy staged(*volume, {.fifo = true});
  staged.stage();
  // A directory lost with its contents, and a file where the FIFO should be.
  const std::string lostDirectory = "Contents/Resources/deep/deeper";
  const std::string fifo = "Contents/pipe";
  removeTreeForcefully(staged.copy + "/" + lostDirectory);
  ASSERT_EQ(::unlink((staged.copy + "/" + fifo).c_str()), 0);
  writeFile(staged.copy + "/" + fifo, "not a fifo");

  MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, repairing());
  EXPECT_EQ(MigrationEntry::read(staged.copy + "/" + fifo, AT_FDCWD)->kind, MigrationEntry::Kind::fifo);
  for (const auto& [path, entry] : staged.manifest) {
    auto copied = MigrationEntry::read(staged.copy + "/" + path, AT_FDCWD);
    ASSERT_TRUE(copied) << path;
    EXPECT_EQ(copied->kind, entry.kind) << path;
    if (entry.kind == MigrationEntry::Kind::regular) {
      EXPECT_EQ(readFile(staged.copy + "/" + path), readFile(staged.source + "/" + path)) << path;
    }
  }
}

TEST(MigrationVerificationTest, ASourceThatChangesDuringVerificationFails) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::tmpfs);
  StagedCopy staged(*volume);
  staged.stage();
  MigrationVerificationOptions options;
  options.checking = [&](const std::string& path) {
    if (path.empty()) writeFile(staged.source + "/appeared-late", "new");
  };
  EXPECT_EQ(issueKeyOf([&] { MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, options); }),
            "error.migration_source_changed");
}

TEST(MigrationVerificationTest, TheFinalSnapshotRefusesLiveSocketsAndStrangers) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::tmpfs);
  StagedCopy staged(*volume);
  staged.stage();

  // A process that started inside the copy and listens there.
  platform::UniqueFd server(::socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string socketPath = staged.copy + "/live.sock";
  ASSERT_LT(socketPath.size(), sizeof address.sun_path);
  std::strcpy(address.sun_path, socketPath.c_str());
  ASSERT_EQ(::bind(server.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(server.get(), 1), 0);
  EXPECT_EQ(issueKeyOf([&] {
              MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, repairing());
            }),
            "migration.preflight.runtime");
  server.reset();
  ASSERT_EQ(::unlink(socketPath.c_str()), 0);

  writeFile(staged.copy + "/stranger.txt", "not from the source");
  EXPECT_EQ(issueKeyOf([&] {
              MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, repairing());
            }),
            "error.migration_copy_mismatch");
}

TEST(MigrationVerificationTest, InactiveSocketsAreNeitherCheckedNorExpected) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  StagedCopy staged(*volume, {.staleSocket = true});
  staged.stage();
  std::set<std::string> inactive;
  for (const auto& [path, entry] : staged.manifest) {
    if (entry.kind == MigrationEntry::Kind::socket) inactive.insert(path);
  }
  ASSERT_FALSE(inactive.empty());
  for (const auto& path : inactive) ASSERT_EQ(::unlink((staged.copy + "/" + path).c_str()), 0);

  MigrationVerificationOptions options;
  options.inactiveSockets = inactive;
  MigrationIntegrityVerifier::verify(staged.source, staged.copy, staged.manifest, options);
}

TEST(MigrationVerificationTest, OverlappingLocationsAreRefusedThroughLinks) {
  TemporaryDirectory dir;
  makeDirectories(dir.child("item/inner"));
  makeDirectories(dir.child("other"));
  ASSERT_EQ(::symlink(dir.child("item").c_str(), dir.child("alias").c_str()), 0);
  for (const auto& [source, destination] : std::vector<std::pair<std::string, std::string>>{
           {dir.child("item"), dir.child("item")},
           {dir.child("item"), dir.child("item/inner/copy")},
           {dir.child("item/inner"), dir.child("item")},
           {dir.child("item"), dir.child("alias/inner/copy")},
           {dir.child("item"), dir.child("./item/")}}) {
    EXPECT_EQ(issueKeyOf([&] { MigrationIntegrityVerifier::validateLocations(source, destination); }),
              "error.migration_overlapping_paths")
        << source << " / " << destination;
  }
  EXPECT_NO_THROW(MigrationIntegrityVerifier::validateLocations(dir.child("item"), dir.child("item-copy")));
  EXPECT_NO_THROW(MigrationIntegrityVerifier::validateLocations(dir.child("item"), dir.child("other/item")));
}

}  // namespace
}  // namespace corvane
