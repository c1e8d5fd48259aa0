#include "cleaner/cleaner_test_support.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "fixtures/sample_tree.h"
#include "platform/process.h"
#include "support/shell_quote.h"

namespace corvane::cleaner_test {

void writeSizedFile(const std::string& path, std::size_t bytes) {
  std::mt19937_64 generator(std::hash<std::string>{}(path));
  std::string data(bytes, '\0');
  for (auto& byte : data) byte = static_cast<char>(generator());
  writeFile(path, data);
}

std::int64_t duBytesBelow(const std::string& path) {
  platform::ProcessRequest request;
  request.executable = "du";
  request.arguments = {"-s", "--block-size=1", path};
  const auto result = platform::runProcess(request);
  if (!result.exit.succeeded()) throw std::runtime_error("du failed: " + result.standardError);
  struct stat own {};
  if (::stat(path.c_str(), &own) != 0) throw std::runtime_error("cannot stat " + path);
  return std::stoll(result.standardOutput) - static_cast<std::int64_t>(own.st_blocks) * 512;
}

bool existsNoFollow(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

ScratchMount::ScratchMount(std::string directory) : directory_(std::move(directory)) {
  if (::geteuid() != 0) return;
  platform::ProcessRequest request;
  request.executable = "mount";
  request.arguments = {"-t", "tmpfs", "-o", "size=8m", "tmpfs", directory_};
  mounted_ = platform::runProcess(request).exit.succeeded();
}

ScratchMount::~ScratchMount() {
  if (!mounted_) return;
  platform::ProcessRequest request;
  request.executable = "umount";
  request.arguments = {"-l", directory_};
  platform::runProcess(request);
}

std::string writeFakeDocker(const std::string& directory, const std::map<std::string, FakeDockerAnswer>& answers) {
  std::ostringstream script;
  script << "#!/bin/sh\n";
  script << "joined=\"\"\nfor argument in \"$@\"; do joined=\"${joined:+$joined|}$argument\"; done\n";
  script << "printf '%s\\n' \"$joined\" >> " << shellQuote(directory + "/calls.log") << "\n";
  script << "case \"$joined\" in\n";
  for (const auto& [arguments, answer] : answers) {
    script << "  " << shellQuote(arguments) << ")\n";
    script << "    printf '%s' " << shellQuote(answer.output) << "\n";
    script << "    exit " << answer.exitStatus << " ;;\n";
  }
  script << "esac\nexit 0\n";
  const std::string path = directory + "/docker";
  std::ofstream(path) << script.str();
  ::chmod(path.c_str(), 0755);
  return path;
}

std::vector<std::string> fakeDockerCalls(const std::string& directory) {
  std::vector<std::string> calls;
  std::ifstream in(directory + "/calls.log");
  for (std::string line; std::getline(in, line);) calls.push_back(line);
  return calls;
}

void giveToNobody(const std::string& path) {
  ::nftw(
      path.c_str(),
      [](const char* name, const struct stat*, int, FTW*) { return ::lchown(name, kNobody, kNobody) == 0 ? 0 : 1; }, 32,
      FTW_PHYS);
}

}  // namespace corvane::cleaner_test
