#include "engine/manifest/migration_entry.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/item_test_support.h"
#include "engine/manifest/migration_file_metadata.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"

namespace corvane {
namespace {

TEST(MigrationEntryTest, LinkTextOf1024BytesReadsAnd1025IsRefusedAndBadUtf8IsReplaced) {
  TemporaryDirectory dir;
  std::string text;  // components stay under NAME_MAX so the text itself is legal
  for (int i = 0; i < 5; ++i) text += std::string(199, 'x') + "/";
  text += std::string(24, 'y');
  const std::string ok = dir.child("ok"), tooLong = dir.child("long");
  ASSERT_EQ(symlink(text.c_str(), ok.c_str()), 0);
  ASSERT_EQ(symlink((text + "y").c_str(), tooLong.c_str()), 0);
  auto entry = MigrationEntry::read(ok, AT_FDCWD);
  ASSERT_TRUE(entry && entry->link);
  EXPECT_EQ(entry->link->size(), 1024u);
  EXPECT_THROW(MigrationEntry::read(tooLong, AT_FDCWD), platform::PosixError);
  // Link texts that are not UTF-8 are reported with replacement characters.
  EXPECT_EQ(decodeUtf8Lossy("a\xff"
                            "b"),
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(decodeUtf8Lossy("\xE4\xB8\xAD"), "\xE4\xB8\xAD");
  EXPECT_EQ(decodeUtf8Lossy("\xE4\xB8"), "\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(decodeUtf8Lossy("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");  // overlong '/'
}

TEST(MigrationEntryTest, JsonKeepsKeyOrderRoundTripsAndRejectsMalformedEntries) {
  MigrationEntry entry{.kind = MigrationEntry::Kind::symbolicLink,
                       .mode = 0755,
                       .device = -5,
                       .inode = 18446744073709551615ULL,
                       .size = 7,
                       .modifiedSeconds = 1,
                       .modifiedNanoseconds = 2,
                       .changedSeconds = 3,
                       .changedNanoseconds = 4,
                       .link = "../x",
                       .flags = 0x20000};
  EXPECT_EQ(
      toJson(entry).dump(),
      R"({"kind":"symbolicLink","inode":18446744073709551615,"device":-5,"size":7,"modifiedSeconds":1,)"
      R"("modifiedNanoseconds":2,"changedSeconds":3,"changedNanoseconds":4,"link":"../x","mode":493,"flags":131072})");
  EXPECT_EQ(entryFromJson(nlohmann::json::parse(toJson(entry).dump())), entry);
  entry.link.reset();
  EXPECT_EQ(toJson(entry).dump().find("link"), std::string::npos);
  for (
      const char* text :
      {R"({"kind":"door"})", R"([1,2])", R"({"kind":"regular","inode":-1})",
       R"({"kind":"regular","inode":1,"device":1,"size":1,"modifiedSeconds":1,"modifiedNanoseconds":1,"changedSeconds":1,"changedNanoseconds":1,"mode":70000,"flags":0})",
       R"({"kind":"regular","inode":1,"device":1,"size":"1"})"}) {
    EXPECT_ANY_THROW(entryFromJson(nlohmann::json::parse(text))) << text;
  }
}

// A recreated FIFO carries the original's owner, attributes and ACL (mode and times: copier test);
// a source gone or no FIFO any more is a source change with nothing made.
TEST(FileMetadataTest, RecreatedFifoCarriesOwnerAttributesAndAcl) {
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
  MigrationFileMetadata::createFIFO(from, to);
  auto copy = platform::statNoFollow(AT_FDCWD, to);
  ASSERT_TRUE(copy);
  EXPECT_TRUE(S_ISFIFO(copy->mode));
  EXPECT_EQ(copy->uid, 65534u);
  EXPECT_EQ(copy->gid, 65534u);
  EXPECT_EQ(platform::readExtendedAttribute(to, "trusted.note"), "kept");
  EXPECT_TRUE(platform::hasExtendedAccessControlList(to));
}

}  // namespace
}  // namespace corvane
