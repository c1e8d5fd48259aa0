// The manifest scan side by side with `du -s`, which also stats every entry: a generated tree
// of 100,000 entries, caches warm and dropped. Prints the time ratios and the peak memory the
// manifest costs per entry.
//
// Usage: bench_scan [ENTRIES]         run the comparison
//        bench_scan --measure KIND DIR   (internal) one scan in a fresh process
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "engine/verify/migration_integrity_verifier.h"
#include "platform/process.h"
#include "support/bench_support.h"

namespace corvane::bench {
namespace {

constexpr int kFilesPerDirectory = 99;

// Directories of 99 small files each, nested two levels deep, with a few links.
void generateTree(const std::string& root, int entries) {
  mkdir(root.c_str(), 0755);
  int made = 1;
  for (int group = 0; made < entries; ++group) {
    const std::string groupDir = fmt::format("{}/group{:03}", root, group);
    mkdir(groupDir.c_str(), 0755);
    ++made;
    for (int d = 0; d < 10 && made < entries; ++d) {
      const std::string dir = fmt::format("{}/folder{:02}", groupDir, d);
      mkdir(dir.c_str(), 0755);
      ++made;
      for (int f = 0; f < kFilesPerDirectory && made < entries; ++f, ++made) {
        const std::string file = fmt::format("{}/file{:03}.dat", dir, f);
        if (f % 33 == 32) {
          symlink("file000.dat", file.c_str());
          continue;
        }
        int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
          [[maybe_unused]] ssize_t written = write(fd, file.data(), file.size());
          close(fd);
        }
      }
    }
  }
}

// Runs in a fresh child so its peak memory belongs to this scan alone.
int measure(const std::string& kind, const std::string& root) {
  const std::int64_t before = peakResidentBytes();
  const bool preflight = kind == "preflight";
  const auto start = std::chrono::steady_clock::now();
  auto manifest = MigrationIntegrityVerifier::snapshot(root, RuntimeEntries::allow,
                                                       preflight ? ReadableCheck::check : ReadableCheck::skip,
                                                       preflight ? RemovableCheck::check : RemovableCheck::skip);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  fmt::print("{} {} {} {}\n", manifest.size(), seconds, before, peakResidentBytes());
  std::fflush(stdout);
  // A transfer hands the manifest on to the copy; freeing it entry by entry is no part of the scan.
  _exit(0);
}

struct Measurement {
  double seconds = 0;
  std::int64_t entries = 0;
  double bytesPerEntry = 0;
};

Measurement runMeasure(const std::string& kind, const std::string& root) {
  std::string output;
  const double seconds = timeCommand(platform::currentExecutablePath(), {"--measure", kind, root}, &output);
  Measurement result;
  double inner = 0;
  std::int64_t before = 0, after = 0;
  std::sscanf(output.c_str(), "%ld %lf %ld %ld", &result.entries, &inner, &before, &after);
  result.seconds = seconds;
  result.bytesPerEntry =
      result.entries > 0 ? static_cast<double>(after - before) / static_cast<double>(result.entries) : 0;
  return result;
}

int compare(int entries) {
  char pattern[] = "/tmp/corvane-bench-scan.XXXXXX";
  if (!mkdtemp(pattern)) return 1;
  const std::string root = std::string(pattern) + "/tree";
  generateTree(root, entries);
  const bool canDrop = dropCaches();
  fmt::print("bench/scan: {} entries in {}\n", entries, root);

  for (bool cold : {false, true}) {
    if (cold && !canDrop) {
      fmt::print("(caches cannot be dropped without root: cold figures skipped)\n");
      break;
    }
    auto prepare = [&] {
      if (cold) dropCaches();
    };
    timeCommand("du", {"-s", root});  // warm both the caches and the binaries
    const double du = medianSeconds(5, prepare, [&] { return timeCommand("du", {"-s", root}); });
    Measurement walk, preflight;
    const double walkSeconds = medianSeconds(5, prepare, [&] { return (walk = runMeasure("walk", root)).seconds; });
    const double preflightSeconds =
        medianSeconds(5, prepare, [&] { return (preflight = runMeasure("preflight", root)).seconds; });
    const std::string state = cold ? "cold" : "warm";
    printComparison("manifest walk, caches " + state, walkSeconds, "du -s", du, 1.5);
    printComparison("preflight scan (walk + checks), " + state, preflightSeconds, "du -s", du, cold ? 1.5 : 1.2);
    fmt::print("peak memory per manifest entry: {:.0f} bytes (target <= 250)\n", walk.bytesPerEntry);
  }
  std::system(fmt::format("rm -rf '{}'", pattern).c_str());
  return 0;
}

}  // namespace
}  // namespace corvane::bench

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--measure") return corvane::bench::measure(argv[2], argv[3]);
  return corvane::bench::compare(argc > 1 ? std::atoi(argv[1]) : 100000);
}
