#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/migration_entry.h"
#include "fixtures/temporary_directory.h"
#include "platform/posix_error.h"

namespace corvane {
namespace {

TEST(MigrationEntryTest, DirectoryCarriesNoSizeOrTimesButKeepsIdentityAndMode) {
  TemporaryDirectory dir;
  const std::string path = dir.path() + "/d";
  ASSERT_EQ(mkdir(path.c_str(), 0751), 0);
  auto entry = MigrationEntry::read(path, AT_FDCWD);
  ASSERT_TRUE(entry);
  struct stat st {};
  ASSERT_EQ(lstat(path.c_str(), &st), 0);
  EXPECT_EQ(entry->kind, MigrationEntry::Kind::directory);
  EXPECT_EQ(entry->inode, st.st_ino);
  EXPECT_EQ(entry->mode, 0751);
  EXPECT_EQ(entry->size, 0);
  EXPECT_EQ(entry->modifiedSeconds, 0);
  EXPECT_EQ(entry->changedNanoseconds, 0);
}

TEST(MigrationEntryTest, MissingObjectIsAbsentNotAnError) {
  EXPECT_FALSE(MigrationEntry::read("/nonexistent/corvane/entry", AT_FDCWD));
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
  const std::string ok = dir.path() + "/ok";
  const std::string tooLong = dir.path() + "/long";
  ASSERT_EQ(symlink(longTarget(1024).c_str(), ok.c_str()), 0);
  ASSERT_EQ(symlink(longTarget(1025).c_str(), tooLong.c_str()), 0);
  auto entry = MigrationEntry::read(ok, AT_FDCWD);
  ASSERT_TRUE(entry && entry->link);
  EXPECT_EQ(entry->link->size(), 1024u);
  EXPECT_THROW(MigrationEntry::read(tooLong, AT_FDCWD), platform::PosixError);
}

TEST(MigrationEntryTest, JsonKeepsKeyOrderAndRoundTrips) {
  MigrationEntry entry;
  entry.kind = MigrationEntry::Kind::symbolicLink;
  entry.inode = 18446744073709551615ULL;
  entry.device = -5;
  entry.size = 7;
  entry.modifiedSeconds = 1;
  entry.modifiedNanoseconds = 2;
  entry.changedSeconds = 3;
  entry.changedNanoseconds = 4;
  entry.link = "../x";
  entry.mode = 0755;
  entry.flags = 0x20000;
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

}  // namespace
}  // namespace corvane
