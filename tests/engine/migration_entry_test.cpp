#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/item_test_support.h"
#include "engine/migration_entry.h"
#include "engine/migration_file_metadata.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"

namespace corvane {
namespace {

// Directories are compared by identity and mode only; a missing object is no error.
TEST(MigrationEntryTest, DirectoryCarriesNoSizeOrTimesAndAMissingObjectIsAbsent) {
  TemporaryDirectory dir;
  ASSERT_EQ(mkdir(dir.child("d").c_str(), 0751), 0);
  auto entry = MigrationEntry::read(dir.child("d"), AT_FDCWD);
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->kind, MigrationEntry::Kind::directory);
  EXPECT_EQ(entry->mode, 0751);
  EXPECT_EQ(entry->size, 0);
  EXPECT_EQ(entry->modifiedSeconds, 0);
  EXPECT_EQ(entry->changedNanoseconds, 0);
  EXPECT_FALSE(MigrationEntry::read(dir.child("missing/entry"), AT_FDCWD));
}

TEST(MigrationEntryTest, LinkTextOf1024BytesReadsAnd1025IsRefused) {
  TemporaryDirectory dir;
  // Component lengths stay under NAME_MAX so the link text itself is legal.
  auto longTarget = [](std::size_t length) {
    std::string text;
    while (text.size() < length) text += text.size() % 200 == 199 ? '/' : 'x';
    text.back() = 'y';
    return text;
  };
  const std::string ok = dir.child("ok"), tooLong = dir.child("long");
  ASSERT_EQ(symlink(longTarget(1024).c_str(), ok.c_str()), 0);
  ASSERT_EQ(symlink(longTarget(1025).c_str(), tooLong.c_str()), 0);
  auto entry = MigrationEntry::read(ok, AT_FDCWD);
  ASSERT_TRUE(entry && entry->link);
  EXPECT_EQ(entry->link->size(), 1024u);
  EXPECT_THROW(MigrationEntry::read(tooLong, AT_FDCWD), platform::PosixError);
}

TEST(MigrationEntryTest, JsonKeepsKeyOrderAndRoundTrips) {
  MigrationEntry entry{.kind = MigrationEntry::Kind::symbolicLink, .inode = 18446744073709551615ULL, .device = -5,
                      .size = 7, .modifiedSeconds = 1, .modifiedNanoseconds = 2, .changedSeconds = 3,
                      .changedNanoseconds = 4, .link = "../x", .mode = 0755, .flags = 0x20000};
  EXPECT_EQ(toJson(entry).dump(),
            R"({"kind":"symbolicLink","inode":18446744073709551615,"device":-5,"size":7,"modifiedSeconds":1,)"
            R"("modifiedNanoseconds":2,"changedSeconds":3,"changedNanoseconds":4,"link":"../x","mode":493,"flags":131072})");
  EXPECT_EQ(entryFromJson(nlohmann::json::parse(toJson(entry).dump())), entry);
  entry.link.reset();
  EXPECT_EQ(toJson(entry).dump().find("link"), std::string::npos);
}

TEST(MigrationEntryTest, MalformedJsonIsRejectedWithAnIssue) {
  for (const char* text : {R"({"kind":"door"})", R"([1,2])", R"({"kind":"regular","inode":-1})",
                           R"({"kind":"regular","inode":1,"device":1,"size":1,"modifiedSeconds":1,"modifiedNanoseconds":1,"changedSeconds":1,"changedNanoseconds":1,"mode":70000,"flags":0})",
                           R"({"kind":"regular","inode":1,"device":1,"size":"1"})"}) {
    EXPECT_ANY_THROW(entryFromJson(nlohmann::json::parse(text))) << text;
  }
}

TEST(MigrationEntryTest, InvalidUtf8InLinkTextIsReplaced) {
  EXPECT_EQ(decodeUtf8Lossy("a\xff" "b"), "a\xEF\xBF\xBD" "b");
  EXPECT_EQ(decodeUtf8Lossy("\xE4\xB8\xAD"), "\xE4\xB8\xAD");
  EXPECT_EQ(decodeUtf8Lossy("\xE4\xB8"), "\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(decodeUtf8Lossy("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");  // overlong '/'
}

// A FIFO is recreated, not copied: the new one carries the original's metadata, and a source
// that is gone or no FIFO any more is a source change with nothing made.
TEST(FileMetadataTest, RecreatedFifoCarriesOwnerModeAttributesAclAndTimes) {
  TemporaryDirectory dir;
  writeFile(dir.child("regular"), "x");
  for (const std::string name : {"missing", "regular"}) {
    EXPECT_EQ(issueKeyOf([&] { MigrationFileMetadata::createFIFO(dir.child(name), dir.child(name + "-copy")); }),
              "error.migration_source_changed")
        << name;
    EXPECT_FALSE(entryAt(dir.child(name + "-copy")));
  }
  if (geteuid() != 0) GTEST_SKIP() << "FIFO attributes and owners need root";
  const std::string from = dir.child("pipe"), to = dir.child("copy");
  ASSERT_EQ(mkfifo(from.c_str(), 0604), 0);
  ASSERT_EQ(lchown(from.c_str(), 65534, 65534), 0);
  // Linux allows user attributes only on files and directories; trusted ones work on FIFOs.
  platform::writeExtendedAttribute(from, "trusted.note", "kept");
  ASSERT_EQ(system(("setfacl -m u:nobody:rw " + from).c_str()), 0);
  struct timespec times[2] = {{1000000000, 123456789}, {1200000000, 987654321}};
  ASSERT_EQ(utimensat(AT_FDCWD, from.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  MigrationFileMetadata::createFIFO(from, to);
  auto source = platform::statNoFollow(AT_FDCWD, from);
  auto copy = platform::statNoFollow(AT_FDCWD, to);
  ASSERT_TRUE(copy);
  EXPECT_TRUE(S_ISFIFO(copy->mode));
  EXPECT_EQ(copy->mode, source->mode);
  EXPECT_EQ(copy->uid, 65534u);
  EXPECT_EQ(copy->gid, 65534u);
  EXPECT_EQ(copy->modified, source->modified);
  EXPECT_EQ(platform::readExtendedAttribute(to, "trusted.note"), "kept");
  EXPECT_TRUE(platform::hasExtendedAccessControlList(to));
}

}  // namespace
}  // namespace corvane
