#include <gtest/gtest.h>

#include <cstdlib>

#include "cleaner/cleaner_test_support.h"
#include "cleaner/docker_client.h"
#include "fixtures/temporary_directory.h"
#include "platform/file_access.h"
#include "platform/process.h"

namespace corvane {
namespace {

using cleaner_test::FakeDockerAnswer;

TEST(DockerSizeTest, DecimalUnitsCaseSensitiveSuffixesAndJunkAsZero) {
  EXPECT_EQ(parseDockerSize("1.5GB"), 1'500'000'000);
  EXPECT_EQ(parseDockerSize("  742MB \n"), 742'000'000);
  EXPECT_EQ(parseDockerSize("2TB"), 2'000'000'000'000);
  EXPECT_EQ(parseDockerSize("3KB"), 3'000);
  EXPECT_EQ(parseDockerSize("17B"), 17);
  EXPECT_EQ(parseDockerSize("0.5B"), 0) << "fractions of a byte are cut off";
  // What Docker prints for small sizes is "kB": only the "B" suffix matches and "512k" is no
  // number, so the size counts as nothing.
  EXPECT_EQ(parseDockerSize("512kB"), 0);
  EXPECT_EQ(parseDockerSize("0B"), 0);
  EXPECT_EQ(parseDockerSize(""), 0);
  EXPECT_EQ(parseDockerSize("   "), 0);
  EXPECT_EQ(parseDockerSize("GB"), 0);
  EXPECT_EQ(parseDockerSize("12"), 0) << "no unit";
  EXPECT_EQ(parseDockerSize("1.5 GB"), 0) << "a blank inside is not part of a number";
  EXPECT_EQ(parseDockerSize("1.5gb"), 0);
  EXPECT_EQ(parseDockerSize("-3MB"), 0);
  EXPECT_EQ(parseDockerSize("1e300TB"), 0) << "out of range";
  EXPECT_EQ(parseDockerSize("10000000TB"), 0) << "past 2^63 bytes";
  EXPECT_EQ(parseDockerSize("9000000TB"), 9'000'000'000'000'000'000);
  EXPECT_EQ(parseDockerSize("9000000GB"), 9'000'000'000'000'000);
  EXPECT_EQ(parseDockerSize("nanGB"), 0);
}

TEST(DockerClientTest, CandidatesFollowTheSystemAndPathWithoutDuplicates) {
  const auto mac = dockerClientCandidates(platform::HostSystem::macOS, "/somewhere/bin");
  EXPECT_EQ(mac, (std::vector<std::string>{"/usr/local/bin/docker", "/opt/homebrew/bin/docker", "/usr/bin/docker"}));
  const auto onLinux = dockerClientCandidates(platform::HostSystem::linuxDesktop, "/opt/x/bin/:relative:/usr/bin::/snap/bin");
  EXPECT_EQ(onLinux, (std::vector<std::string>{"/usr/local/bin/docker", "/usr/bin/docker", "/opt/x/bin/docker",
                                             "/snap/bin/docker"}));
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
       {"aaaa1111bbbb\t142MB\n"     // in use by nginx
        "dddd4444eeee\t30MB\n"      // in use by redis
        "123456789abc\t1.5GB\n"     // unused
        "123456789abc\t1.5GB\n"     // the same image under a second tag
        "fedcba987654\t512kB\n"     // unused, but Docker's "kB" reads as nothing
        "no-tab-here 5GB\n"         // malformed: one field
        "0f0f0f0f0f0f\t2MB\textra\n"}},
      {"system|df|--format|{{.Type}}\t{{.Reclaimable}}",
       {"Images\t1.502GB (91%)\nContainers\t0B (0%)\nLocal Volumes\t3GB (100%)\nBuild Cache\t250MB (100%)\n"}},
  });
  const auto space = client.getDockerReclaimableSpace();
  ASSERT_TRUE(space.has_value());
  EXPECT_EQ(*space, 1'500'000'000 + 2'000'000 + 250'000'000);

  const auto calls = cleaner_test::fakeDockerCalls(directory.path());
  ASSERT_EQ(calls.size(), 5u) << "ps, two inspects, images, system df";
  EXPECT_EQ(calls.front(), "ps|--format|{{.Image}}");
  EXPECT_EQ(calls[3], "images|-a|--format|{{.ID}}\t{{.Size}}") << "a real tab between the fields";
  EXPECT_EQ(calls[4], "system|df|--format|{{.Type}}\t{{.Reclaimable}}");
}

TEST_F(FakeDockerTest, NoDaemonHidesTheItemAndPruneFailuresAreReported) {
  auto client = clientWith({
      {"ps|--format|{{.Image}}", {"Cannot connect to the Docker daemon", 1}},
      {"system|prune|-a|-f", {"", 1}},
  });
  EXPECT_FALSE(client.getDockerReclaimableSpace().has_value());
  EXPECT_EQ(cleaner_test::fakeDockerCalls(directory.path()).size(), 1u) << "nothing is asked after ps failed";
  EXPECT_FALSE(client.executeCommand("docker", {"system", "prune", "-a", "-f"}));
  EXPECT_EQ(cleaner_test::fakeDockerCalls(directory.path()).back(), "system|prune|-a|-f");
}

TEST_F(FakeDockerTest, AClientThatHangsIsStoppedAtItsDeadline) {
  const std::string fake = directory.child("docker");
  cleaner_test::writeFakeDocker(directory.path(), {});
  // Replace the script with one that never answers.
  {
    std::FILE* file = std::fopen(fake.c_str(), "w");
    std::fputs("#!/bin/sh\nexec sleep 600\n", file);
    std::fclose(file);
  }
  DockerDeadlines deadlines;
  deadlines.query = {std::chrono::milliseconds(200), std::chrono::milliseconds(200), std::chrono::milliseconds(200)};
  DockerClient client({fake}, deadlines);
  EXPECT_FALSE(client.getDockerReclaimableSpace().has_value());
}

TEST(DockerClientTest, NoClientMeansNoItemAndNoCommand) {
  DockerClient client({"/nonexistent/docker"}, DockerDeadlines{});
  EXPECT_FALSE(client.locate().has_value());
  EXPECT_FALSE(client.getDockerReclaimableSpace().has_value());
  EXPECT_FALSE(client.executeCommand("docker", {"system", "prune", "-a", "-f"}));
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
