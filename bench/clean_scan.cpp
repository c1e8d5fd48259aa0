// The cleaner's sizing side by side with `du -s`: a generated cache tree of 100,000 files, caches
// warm and dropped. Both sides run as a fresh process, so both pay for starting one.
//
// Usage: bench_clean_scan [FILES]        run the comparison
//        bench_clean_scan --measure DIR  (internal) one sizing in a fresh process
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "cleaner/cleaner_directory_sizer.h"
#include "platform/process.h"
#include "support/bench_support.h"

namespace corvane::bench {
namespace {

// Shaped like a package cache: 100 groups of 10 folders of 100 files, sizes from empty to a
// few blocks, with some hard links as content-addressed caches make.
void generateCache(const std::string& root, int files) {
  ::mkdir(root.c_str(), 0755);
  static const std::string content(24'000, 'c');
  static constexpr std::size_t kSizes[] = {0, 100, 900, 4096, 5000, 13'000, 24'000};
  int made = 0;
  for (int group = 0; made < files; ++group) {
    const std::string groupDir = fmt::format("{}/{:02x}", root, group);
    ::mkdir(groupDir.c_str(), 0755);
    for (int folder = 0; folder < 10 && made < files; ++folder) {
      const std::string dir = fmt::format("{}/{:02x}", groupDir, folder);
      ::mkdir(dir.c_str(), 0755);
      for (int file = 0; file < 100 && made < files; ++file, ++made) {
        const std::string path = fmt::format("{}/entry{:03}", dir, file);
        if (file % 50 == 49) {
          [[maybe_unused]] int linked = ::link(fmt::format("{}/entry000", dir).c_str(), path.c_str());
          continue;
        }
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0) continue;
        [[maybe_unused]] ssize_t written = ::write(fd, content.data(), kSizes[made % std::size(kSizes)]);
        ::close(fd);
      }
    }
  }
}

int measure(const std::string& root) {
  const auto sizing = CleanerDirectorySizer().calculateDirectorySizeSynchronously({root});
  fmt::print("{} {}\n", sizing.bytes, sizing.entries);
  return 0;
}

int compare(int files) {
  char pattern[] = "/tmp/corvane-bench-clean.XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  const std::string root = std::string(pattern) + "/cache";
  generateCache(root, files);
  const bool canDrop = dropCaches();
  fmt::print("bench/clean_scan: {} files in {}\n", files, root);

  std::string ours;
  std::string theirs;
  timeCommand(platform::currentExecutablePath(), {"--measure", root}, &ours);
  timeCommand("du", {"-s", "--block-size=1", root}, &theirs);
  struct stat own {};
  ::stat(root.c_str(), &own);
  fmt::print("sizes: cleaner {} bytes in {} entries; du -s {} bytes, {} without the root folder itself\n",
             ours.substr(0, ours.find(' ')), std::stoll(ours.substr(ours.find(' ') + 1)), std::stoll(theirs),
             std::stoll(theirs) - own.st_blocks * 512);

  for (bool cold : {false, true}) {
    if (cold && !canDrop) {
      fmt::print("(caches cannot be dropped without root: cold figures skipped)\n");
      break;
    }
    auto prepare = [&] {
      if (cold) dropCaches();
    };
    const double du = medianSeconds(7, prepare, [&] { return timeCommand("du", {"-s", root}); });
    const double sizer = medianSeconds(7, prepare, [&] {
      return timeCommand(platform::currentExecutablePath(), {"--measure", root});
    });
    printComparison(fmt::format("cleaner sizing, caches {}", cold ? "dropped" : "warm"), sizer, "du -s", du, 1.2);
  }
  std::system(fmt::format("rm -rf '{}'", pattern).c_str());
  return 0;
}

}  // namespace
}  // namespace corvane::bench

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--measure") return corvane::bench::measure(argv[2]);
  return corvane::bench::compare(argc > 1 ? std::atoi(argv[1]) : 100000);
}
