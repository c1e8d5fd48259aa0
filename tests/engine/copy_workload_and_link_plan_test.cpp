#include <gtest/gtest.h>
#include <unistd.h>

#include "engine/migration_copy_workload.h"
#include "engine/migration_integrity_verifier.h"
#include "engine/migration_link_plan.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"

namespace corvane {
namespace {

MigrationManifest scanTree(const std::string& root) {
  return MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
}

TEST(CopyWorkloadTest, HardLinksArePaidOnceAndInactiveSocketsAreNotEntries) {
  TemporaryDirectory dir;
  const std::string root = dir.child("item");
  makeDirectories(root);
  writeFile(root + "/ten", "0123456789");
  ASSERT_EQ(link((root + "/ten").c_str(), (root + "/ten-again").c_str()), 0);
  makeStaleSocket(root + "/s.sock");
  auto manifest = scanTree(root);
  MigrationCopyWorkload workload(manifest, {"s.sock", "not-in-manifest"});
  EXPECT_EQ(workload.bytes, 10);
  EXPECT_EQ(workload.totalBytes, 20);
  EXPECT_EQ(workload.entries, 3);  // root and the two names; the socket is left out

  MigrationManifest odd;
  MigrationEntry negative;
  negative.size = -7;
  odd["x"] = negative;
  MigrationEntry directory;
  directory.kind = MigrationEntry::Kind::directory;
  directory.size = 99;
  directory.inode = 2;
  odd["d"] = directory;
  MigrationCopyWorkload oddWorkload(odd, {});
  EXPECT_EQ(oddWorkload.bytes, 0);
  EXPECT_EQ(oddWorkload.totalBytes, 0);
  EXPECT_EQ(oddWorkload.entries, 2);
}

class LinkPlanTest : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = dir_.path();
    root_ = base_ + "/home/item";
    makeDirectories(root_ + "/a/b");
    makeDirectories(base_ + "/home/shared");
    writeFile(root_ + "/x", "inside");
    writeFile(base_ + "/home/x", "outside");
  }
  void link(const std::string& target, const std::string& relative) {
    ASSERT_EQ(symlink(target.c_str(), (root_ + "/" + relative).c_str()), 0) << relative;
  }
  std::map<std::string, std::string> plan() { return MigrationLinkPlan::relocatedTargets(root_, scanTree(root_)); }

  TemporaryDirectory dir_;
  std::string base_;
  std::string root_;
};

TEST_F(LinkPlanTest, OnlyLinksThatClimbOutOfTheItemAreRewritten) {
  link("../../x", "a/b/stays");         // a/b -> a -> root: x, inside
  link("../x", "climbs");               // from the root: outside
  link("../shared", "a/../sibling");    // written as a/../sibling == sibling: climbs out
  link("/etc/hostname", "absolute");    // absolute links stay as they are
  link("b/../../x", "a/dotdot-inside");
  link("./././x", "dots");
  auto targets = plan();
  EXPECT_EQ(targets.count("a/b/stays"), 0u);
  EXPECT_EQ(targets.count("absolute"), 0u);
  EXPECT_EQ(targets.count("a/dotdot-inside"), 0u);
  EXPECT_EQ(targets.count("dots"), 0u);
  ASSERT_EQ(targets.count("climbs"), 1u);
  EXPECT_EQ(targets.at("climbs"), base_ + "/home/x");
  ASSERT_EQ(targets.count("sibling"), 1u);
  EXPECT_EQ(targets.at("sibling"), base_ + "/home/shared");
  EXPECT_EQ(targets.size(), 2u);
}

TEST_F(LinkPlanTest, ChainsAreFollowedThroughInnerLinks) {
  link("a/b", "to-b");                 // inner relative link to a directory
  link("to-b/../../../x", "through");  // root/to-b -> a/b, then up three: climbs out
  link(root_ + "/a", "abs-inside");    // absolute link into the item itself
  link("abs-inside/../../x", "via-absolute");  // resolves through the item: root/.. -> outside
  link("../x", "a/up-one");            // stays inside: root/x
  link("a/up-one", "via-inner-ok");    // chain that ends inside
  auto targets = plan();
  EXPECT_EQ(targets.count("through"), 1u);
  EXPECT_EQ(targets.count("via-absolute"), 1u);
  EXPECT_EQ(targets.count("via-inner-ok"), 0u);
  EXPECT_EQ(targets.count("a/up-one"), 0u);
  EXPECT_EQ(targets.count("to-b"), 0u);
}

TEST_F(LinkPlanTest, InnerLinkThatIsRewrittenCarriesTheResolution) {
  link("../x", "out");        // rewritten
  link("out", "uses-out");    // points at the rewritten link: left alone
  auto targets = plan();
  EXPECT_EQ(targets.count("out"), 1u);
  EXPECT_EQ(targets.count("uses-out"), 0u);
}

TEST_F(LinkPlanTest, CyclesAndLongChainsEndWithoutRewriting) {
  link("loop-b", "loop-a");
  link("loop-a", "loop-b");
  link("loop-a/../../x", "through-loop");
  // A chain of links that stays inside, followed by a climb in the outer link's own text:
  // at most 40 links are followed, so only the shorter chain is seen to climb out.
  makeDirectories(root_ + "/d");
  auto chain = [&](const std::string& prefix, int length) {
    for (int i = 1; i < length; ++i) link(prefix + std::to_string(i + 1), prefix + std::to_string(i));
    link("d", prefix + std::to_string(length));
  };
  chain("long", 41);
  chain("short", 40);
  link("long1/../../x", "via-long");
  link("short1/../../x", "via-short");
  auto targets = plan();
  EXPECT_EQ(targets.count("loop-a"), 0u);
  EXPECT_EQ(targets.count("loop-b"), 0u);
  EXPECT_EQ(targets.count("through-loop"), 0u);
  EXPECT_EQ(targets.count("via-long"), 0u);
  ASSERT_EQ(targets.count("via-short"), 1u);
  EXPECT_EQ(targets.at("via-short"), base_ + "/home/x");
  EXPECT_EQ(targets.size(), 1u);
}

}  // namespace
}  // namespace corvane
