#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "engine/migration_file_metadata.h"
#include "engine/migration_issue.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/file_system.h"

namespace corvane {
namespace {

TEST(FileMetadataTest, RecreatedFifoCarriesOwnerModeAttributesAclAndTimes) {
  TemporaryDirectory dir;
  const std::string from = dir.child("pipe");
  const std::string to = dir.child("copy");
  ASSERT_EQ(mkfifo(from.c_str(), 0604), 0);
  ASSERT_EQ(lchown(from.c_str(), 65534, 65534), 0);
  // Linux allows user attributes only on files and directories; trusted ones work on FIFOs.
  if (geteuid() != 0) GTEST_SKIP() << "FIFO attributes and owners need root";
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

TEST(FileMetadataTest, SourceThatIsGoneOrNoFifoIsASourceChange) {
  TemporaryDirectory dir;
  writeFile(dir.child("regular"), "x");
  for (const char* name : {"missing", "regular"}) {
    try {
      MigrationFileMetadata::createFIFO(dir.child(name), dir.child(std::string(name) + "-copy"));
      FAIL() << name;
    } catch (const MigrationIssue& issue) {
      EXPECT_EQ(issue.key(), "error.migration_source_changed");
    }
    EXPECT_FALSE(platform::statNoFollow(AT_FDCWD, dir.child(std::string(name) + "-copy")));
  }
}

}  // namespace
}  // namespace corvane
