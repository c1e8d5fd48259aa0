#include "engine/verify/migration_integrity_verifier.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <random>

#include "engine/item_test_support.h"
#include "engine/manifest/migration_copy_workload.h"
#include "engine/verify/migration_content_comparison.h"
#include "engine/verify/migration_entry_repair.h"
#include "fixtures/occupant_process.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "fixtures/test_volume.h"
#include "platform/posix_error.h"
#include "platform/read_ahead.h"
#include "platform/unique_fd.h"

namespace corvane {
namespace {

// Random bytes, so a run of them is found exactly once on a device.
std::string patternedBytes(std::size_t length, unsigned seed) {
  std::mt19937_64 random(seed);
  std::string bytes(length, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

// Whether `marker` is in the image behind the volume now, without flushing anything first.
bool deviceHolds(const TestVolume& volume, const std::string& marker) {
  return readFile(volume.device()).find(marker) != std::string::npos;
}

// Flushes the volume, then flips one byte of `marker` in the image beneath the mounted file
// system, leaving the page cache untouched. True when found.
bool damageOnDevice(const TestVolume& volume, const std::string& marker) {
  platform::UniqueFd root(::open(volume.mountPoint().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root || ::syncfs(root.get()) != 0) throw platform::PosixError(errno, volume.mountPoint());
  const auto found = readFile(volume.device()).find(marker);
  if (found == std::string::npos) return false;
  platform::UniqueFd image(::open(volume.device().c_str(), O_WRONLY | O_CLOEXEC));
  const char byte = static_cast<char>(marker[7] ^ 0x5A);
  if (!image || ::pwrite(image.get(), &byte, 1, static_cast<off_t>(found + 7)) != 1 || ::fsync(image.get()) != 0) {
    throw platform::PosixError(errno, volume.device());
  }
  return true;
}

// A source item (without links unless asked) and its copy by cp on a real volume.
struct StagedCopy {
  explicit StagedCopy(const TestVolume& volume, SampleTreeOptions tree = {.symbolicLinks = false})
      : source(sourceDirectory.child("Item.app")), copy(volume.child("staging/Item.app")) {
    buildSampleTree(source, tree);
    makeDirectories(volume.child("staging"));
  }
  void stage() {
    manifest = scanned(source);
    copyTree(source, copy);
  }
  std::string verifyKey(const MigrationVerificationOptions& options = {}) {
    return issueKeyOf([&] { MigrationIntegrityVerifier::verify(source, copy, manifest, options); });
  }
  // Verifies with the migration's repair and returns the paths it rebuilt.
  std::vector<std::string> repaired(MigrationVerificationOptions options = {}) {
    std::vector<std::string> paths;
    options.repair = MigrationEntryRepair::rebuild;
    options.repaired = [&](const std::string& path) { paths.push_back(path); };
    MigrationIntegrityVerifier::verify(source, copy, manifest, options);
    return paths;
  }
  TemporaryDirectory sourceDirectory;
  std::string source;
  std::string copy;
  MigrationManifest manifest;
};

// Inactive sockets are left out of the copy: neither checked nor expected there.
TEST(MigrationVerificationTest, AFaithfulCopyPassesWithEveryByteAndEntryCounted) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  StagedCopy staged(*volume, {.fifo = true, .staleSocket = true, .sparseFile = true, .extendedAttributes = true});
  writeFile(staged.source + "/large.bin", patternedBytes(3 * 1048576 + 17, 1));
  staged.stage();
  const std::set<std::string> inactive{"Contents/stale.sock"};
  ASSERT_EQ(::unlink((staged.copy + "/Contents/stale.sock").c_str()), 0);
  MigrationVerificationOptions options;
  options.inactiveSockets = inactive;
  options.relocated.emplace();  // cp kept every link text as it was
  MigrationVerificationProgress last;
  std::vector<std::string> checked;
  options.progress = [&](const MigrationVerificationProgress& progress) {
    EXPECT_GE(progress.bytes, last.bytes);
    EXPECT_GE(progress.entries, last.entries);
    last = progress;
  };
  options.checking = [&](const std::string& path) { checked.push_back(path); };
  EXPECT_TRUE(staged.repaired(options).empty());
  const MigrationCopyWorkload workload(staged.manifest, inactive);
  EXPECT_EQ(last.bytes, workload.bytes) << "hard-linked data is compared once";
  EXPECT_EQ(last.entries, workload.entries);
  EXPECT_EQ(checked.size(), staged.manifest.size() - inactive.size());
}

// Contents are compared in chunks: a difference in the last, partial one is found, as is a short
// copy. An original replaced by another file of the same size is not the scanned source any more.
TEST(MigrationVerificationTest, FindsADifferenceInTheLastByteAndAReplacedOriginal) {
  TemporaryDirectory dir;
  const std::string contents = patternedBytes(2 * 1048576 + 5, 2);
  std::string lastByteDiffers = contents;
  lastByteDiffers.back() ^= 1;
  writeFile(dir.child("original"), contents);
  writeFile(dir.child("different"), lastByteDiffers);
  writeFile(dir.child("same"), contents);
  writeFile(dir.child("short"), contents.substr(0, contents.size() - 1));
  const auto expected = *entryAt(dir.child("original"));
  auto matches = [&](const std::string& name) {
    return MigrationIntegrityVerifier::matches(dir.child("original"), dir.child(name), expected, {});
  };
  EXPECT_FALSE(matches("different"));
  EXPECT_FALSE(matches("short"));
  EXPECT_TRUE(matches("same"));
  // A copy opened ahead of its turn is read only while it is still the object at the copy's path.
  MigrationContentComparison comparison;
  auto compare = [&](const std::string& name, const std::string& openedAheadName) {
    auto openedAhead = platform::openAhead(AT_FDCWD, dir.child(openedAheadName), 0, platform::CachedPages::drop);
    EXPECT_TRUE(openedAhead.has_value());
    return comparison.sameContents(dir.child("original"), expected, dir.child(name), *entryAt(dir.child(name)), {},
                                   std::move(openedAhead));
  };
  EXPECT_TRUE(compare("same", "different")) << "the descriptor of another file is set aside";
  EXPECT_TRUE(compare("same", "same"));
  EXPECT_FALSE(compare("different", "different"));
  writeFile(dir.child("replacement"), contents);
  ASSERT_EQ(::rename(dir.child("replacement").c_str(), dir.child("original").c_str()), 0);
  EXPECT_EQ(issueKeyOf([&] { matches("same"); }), "error.migration_source_changed");
}

// Damage on the device beneath good cached pages is seen only by reading from the medium: it fails
// without repair, is repaired once, and a drive that loses the repair too gets no second one.
TEST(MigrationVerificationTest, DamageBeneathThePageCacheIsFoundAndRepairedOnce) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::ext4);
  StagedCopy staged(*volume);
  const std::string payload = patternedBytes(256 * 1024, 3);
  const std::string marker = payload.substr(0, 64);
  writeFile(staged.source + "/Contents/payload.bin", payload);
  staged.stage();
  ASSERT_TRUE(damageOnDevice(*volume, marker));
  ASSERT_EQ(readFile(staged.copy + "/Contents/payload.bin"), payload) << "the cached pages still look right";
  EXPECT_EQ(staged.verifyKey(), "error.migration_copy_mismatch");
  int repairs = 0;
  MigrationVerificationOptions damagingAgain;
  damagingAgain.repair = [&](const MigrationRepairRequest& request) {
    ++repairs;
    MigrationEntryRepair::rebuild(request);
    ASSERT_TRUE(damageOnDevice(*volume, marker));
  };
  EXPECT_EQ(staged.verifyKey(damagingAgain), "error.migration_copy_mismatch");
  EXPECT_EQ(repairs, 1);
  EXPECT_EQ(staged.repaired(), std::vector<std::string>{"Contents/payload.bin"});
  EXPECT_EQ(readFile(staged.copy + "/Contents/payload.bin"), payload);
  // Data only in the page cache is flushed to the drive before anything is read back.
  const std::string late = patternedBytes(64 * 1024, 6);
  writeFile(staged.source + "/late.bin", late);
  writeFile(staged.copy + "/late.bin", late);
  staged.manifest = scanned(staged.source);
  const bool writtenBack = deviceHolds(*volume, late.substr(0, 64));
  EXPECT_EQ(staged.verifyKey(), "");
  EXPECT_TRUE(writtenBack || deviceHolds(*volume, late.substr(0, 64)));
}

// Each kind of wrong entry fails the verification and is rebuilt by the repair.
TEST(MigrationVerificationTest, WrongEntriesAreRebuiltButStrangersLiveSocketsAndSourceChangesFail) {
  CORVANE_TEST_VOLUME(volume, VolumeKind::btrfs);
  StagedCopy staged(*volume, {.symbolicLinks = true, .fifo = true});
  writeFile(staged.sourceDirectory.child("outside.txt"), "outside\n");
  writeFile(staged.source + "/first", "shared contents\n");
  ASSERT_EQ(::link((staged.source + "/first").c_str(), (staged.source + "/second").c_str()), 0);
  ASSERT_EQ(::symlink("Contents", (staged.source + "/stays-in").c_str()), 0);
  // cp keeps the relative text of the sample's climbing link, which would point next to the copy.
  staged.stage();
  const std::string copy = staged.copy + "/";
  // Same bytes, but a file of its own: the hard-link group is split.
  ASSERT_EQ(::unlink((copy + "second").c_str()), 0);
  writeFile(copy + "second", "shared contents\n");
  ASSERT_EQ(::unlink((copy + "stays-in").c_str()), 0);
  ASSERT_EQ(::symlink("/etc", (copy + "stays-in").c_str()), 0);
  removeTreeForcefully(copy + "Contents/Resources/deep/deeper");
  ASSERT_EQ(::unlink((copy + "Contents/pipe").c_str()), 0);
  writeFile(copy + "Contents/pipe", "not a fifo");
  EXPECT_EQ(staged.verifyKey(), "error.migration_copy_mismatch");
  auto repaired = staged.repaired();
  std::sort(repaired.begin(), repaired.end());
  EXPECT_EQ(repaired, (std::vector<std::string>{"Contents/Resources/deep/climbs-out", "Contents/Resources/deep/deeper",
                                                "Contents/Resources/deep/deeper/private.txt", "Contents/pipe", "second",
                                                "stays-in"}));
  EXPECT_EQ(staged.verifyKey(), "") << "the repaired copy passes as it is";
  EXPECT_EQ(entryAt(copy + "first")->identity(), entryAt(copy + "second")->identity());
  EXPECT_EQ(*entryAt(copy + "Contents/Resources/deep/climbs-out")->link, staged.sourceDirectory.child("outside.txt"));
  EXPECT_EQ(*entryAt(copy + "stays-in")->link, "Contents");
  EXPECT_EQ(readFile(copy + "Contents/Resources/deep/deeper/private.txt"), "secret\n");
  // Without hard links preserved a split group is acceptable.
  ASSERT_EQ(::unlink((copy + "second").c_str()), 0);
  writeFile(copy + "second", "shared contents\n");
  MigrationVerificationOptions ignoring;
  ignoring.hardLinks = HardLinkPolicy::ignore;
  EXPECT_EQ(staged.verifyKey(ignoring), "");
  // Live sockets, entries the source never had and a source changing meanwhile are never repaired.
  ignoring.repair = MigrationEntryRepair::rebuild;
  {
    auto server = OccupantProcess::listening(staged.copy, "live.sock", OccupantSocket::stream);
    EXPECT_EQ(staged.verifyKey(ignoring), "migration.preflight.runtime");
    server.stop(SIGTERM);
  }
  writeFile(copy + "stranger.txt", "not from the source");
  EXPECT_EQ(staged.verifyKey(ignoring), "error.migration_copy_mismatch");
  // Asking only whether the source is all in the copy (before deleting the source), a stranger
  // is no difference, but a changed byte still is.
  MigrationVerificationOptions containing;
  containing.hardLinks = HardLinkPolicy::ignore;
  containing.destinationMayHoldMore = true;
  EXPECT_EQ(staged.verifyKey(containing), "");
  writeFile(copy + "first", "shared contentS\n");
  EXPECT_EQ(staged.verifyKey(containing), "error.migration_copy_mismatch");
  writeFile(copy + "first", "shared contents\n");
  ASSERT_EQ(::unlink((copy + "stranger.txt").c_str()), 0);
  ignoring.checking = [&](const std::string& path) {
    if (path.empty()) writeFile(staged.source + "/appeared-late", "new");
  };
  EXPECT_EQ(staged.verifyKey(ignoring), "error.migration_source_changed");
}

TEST(MigrationVerificationTest, OverlappingLocationsAreRefusedThroughLinks) {
  TemporaryDirectory dir;
  makeDirectories(dir.child("item/inner"));
  makeDirectories(dir.child("other"));
  ASSERT_EQ(::symlink(dir.child("item").c_str(), dir.child("alias").c_str()), 0);
  for (const auto& [source, destination] :
       std::vector<std::pair<std::string, std::string>>{{"item", "item"},
                                                        {"item", "item/inner/copy"},
                                                        {"item/inner", "item"},
                                                        {"item", "alias/inner/copy"},
                                                        {"item", "./item/"}}) {
    auto validate = [&] { MigrationIntegrityVerifier::validateLocations(dir.child(source), dir.child(destination)); };
    EXPECT_EQ(issueKeyOf(validate), "error.migration_overlapping_paths") << source << " / " << destination;
  }
  for (const char* separate : {"item-copy", "other/item"}) {
    EXPECT_NO_THROW(MigrationIntegrityVerifier::validateLocations(dir.child("item"), dir.child(separate))) << separate;
  }
}

}  // namespace
}  // namespace corvane
