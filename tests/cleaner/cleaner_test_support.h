// Helpers for the cleaner tests: sized files, the du oracle, a scratch mount, a fake docker client.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace corvane::cleaner_test {

// A file of `bytes` pseudo-random bytes (no file system can compress or share them); parents are made.
void writeSizedFile(const std::string& path, std::size_t bytes);
// What `du -s --block-size=1` reports for `path` minus the blocks of `path` itself: the space
// the cleaner should find below a root.
std::int64_t duBytesBelow(const std::string& path);
bool existsNoFollow(const std::string& path);
std::vector<std::string> namesIn(const std::string& directory);

// A tmpfs mounted at `directory` for the test's lifetime (needs root).
class ScratchMount {
 public:
  explicit ScratchMount(std::string directory);
  ~ScratchMount();
  bool mounted() const { return mounted_; }

 private:
  std::string directory_;
  bool mounted_ = false;
};

// An executable shell script named "docker" in `directory`: each call appends its arguments
// (one line, separated by "|") to `directory`/calls.log, prints the canned answer for the
// joined arguments and exits with the canned status (0 and nothing for unknown arguments).
struct FakeDockerAnswer {
  std::string output;
  int exitStatus = 0;
};
std::string writeFakeDocker(const std::string& directory, const std::map<std::string, FakeDockerAnswer>& answers);
std::vector<std::string> fakeDockerCalls(const std::string& directory);

inline constexpr unsigned kNobody = 65534;
// chown -R to nobody, without following links.
void giveToNobody(const std::string& path);

}  // namespace corvane::cleaner_test
