#include "cleaner/docker_client.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "cleaner/cleaner_test_support.h"
#include "fixtures/sample_tree.h"
#include "fixtures/temporary_directory.h"
#include "platform/process.h"

namespace corvane {
namespace {

using cleaner_test::FakeDockerAnswer;

TEST(DockerSizeTest, DecimalUnitsCaseSensitiveSuffixesAndJunkAsZero) {
  // Docker prints "kB" for small sizes: only "B" matches, and "512k" is no number.
  const std::pair<const char*, std::int64_t> cases[] = {{"1.5GB", 1'500'000'000},
                                                        {"  742MB \n", 742'000'000},
                                                        {"2TB", 2'000'000'000'000},
                                                        {"17B", 17},
                                                        {"0.5B", 0},
                                                        {"512kB", 0},
                                                        {"", 0},
                                                        {"1.5 GB", 0},
                                                        {"1.5gb", 0},
                                                        {"-3MB", 0},
                                                        {"10000000TB", 0} /* past 2^63 bytes */,
                                                        {"9000000TB", 9'000'000'000'000'000'000},
                                                        {"nanGB", 0}};
  for (const auto& [text, bytes] : cases) EXPECT_EQ(parseDockerSize(text), bytes) << '"' << text << '"';
}

TEST(DockerClientTest, NoClientMeansNoItem) {
  DockerClient client({"/nonexistent/docker"}, DockerDeadlines{});
  EXPECT_FALSE(client.locate().has_value());
  EXPECT_FALSE(client.getDockerReclaimableSpace().has_value());
  EXPECT_FALSE(client.executeCommand("docker", {"system", "prune", "-a", "-f"}));
}

class FakeDockerTest : public ::testing::Test {
 protected:
  TemporaryDirectory directory;
  DockerClient clientWith(const std::map<std::string, FakeDockerAnswer>& answers) {
    const auto fake = cleaner_test::writeFakeDocker(directory.path(), answers);
    // The fake comes first; a missing candidate before it is passed over.
    return DockerClient({directory.child("absent/docker"), fake, "/usr/local/bin/docker"}, DockerDeadlines{});
  }
};

TEST_F(FakeDockerTest, ReclaimableSpaceLeavesOutImagesOfRunningContainersAndAddsTheBuildCache) {
  auto client = clientWith({
      {"ps|--format|{{.Image}}", {"nginx:latest\n  \nredis:7\n"}},
      // inspect answers with the full digest, the listing with the short form
      {"image|inspect|nginx:latest|--format|{{.ID}}", {"sha256:aaaa1111bbbb2222cccc3333\n"}},
      {"image|inspect|redis:7|--format|{{.ID}}", {"sha256:dddd4444eeee5555ffff6666\n"}},
      {"images|-a|--format|{{.ID}}\t{{.Size}}",
       {"aaaa1111bbbb\t142MB\n"  // in use by nginx
        "dddd4444eeee\t30MB\n"   // in use by redis
        "123456789abc\t1.5GB\n"  // unused
        "123456789abc\t1.5GB\n"  // the same image under a second tag
        "fedcba987654\t512kB\n"  // unused, but Docker's "kB" reads as nothing
        "no-tab-here 5GB\n"      // malformed: one field
        "0f0f0f0f0f0f\t2MB\textra\n"}},
      {"system|df|--format|{{.Type}}\t{{.Reclaimable}}",
       {"Images\t1.502GB (91%)\nContainers\t0B (0%)\nLocal Volumes\t3GB (100%)\nBuild Cache\t250MB (100%)\n"}},
  });
  // The fake answers only the exact arguments (with real tabs), so the sum proves they were sent.
  EXPECT_EQ(client.getDockerReclaimableSpace(), 1'500'000'000 + 2'000'000 + 250'000'000);
}

TEST_F(FakeDockerTest, NoDaemonHidesTheItemAndPruneFailuresAreReported) {
  auto client = clientWith(
      {{"ps|--format|{{.Image}}", {"Cannot connect to the Docker daemon", 1}}, {"system|prune|-a|-f", {"", 1}}});
  EXPECT_FALSE(client.getDockerReclaimableSpace().has_value());
  EXPECT_EQ(cleaner_test::fakeDockerCalls(directory.path()).size(), 1u) << "nothing is asked after ps failed";
  EXPECT_FALSE(client.executeCommand("docker", {"system", "prune", "-a", "-f"}));
  EXPECT_EQ(cleaner_test::fakeDockerCalls(directory.path()).back(), "system|prune|-a|-f");
}

TEST_F(FakeDockerTest, AClientThatHangsIsStoppedAtItsDeadline) {
  writeFile(directory.child("docker"), "#!/bin/sh\nexec sleep 600\n", 0755);
  DockerDeadlines deadlines;
  deadlines.query = {std::chrono::milliseconds(200), std::chrono::milliseconds(200), std::chrono::milliseconds(200)};
  EXPECT_FALSE(DockerClient({directory.child("docker")}, deadlines).getDockerReclaimableSpace().has_value());
}

TEST(DockerClientTest, TheRealClientWithoutADaemonHidesTheItem) {
  const char* path = std::getenv("PATH");
  DockerClient client(dockerClientCandidates(platform::HostSystem::linuxDesktop, path ? path : ""), DockerDeadlines{});
  const auto real = client.locate();
  if (!real) GTEST_SKIP() << "no docker client installed (looked in /usr/local/bin, /usr/bin and PATH)";
  platform::ProcessRequest info;
  info.executable = *real;
  info.arguments = {"info"};
  if (platform::runProcess(info, {std::chrono::seconds(20)}).exit.succeeded()) {
    GTEST_SKIP() << "a Docker daemon is running here, so the no-daemon case cannot be shown";
  }
  EXPECT_FALSE(client.getDockerReclaimableSpace().has_value());
}

}  // namespace
}  // namespace corvane
