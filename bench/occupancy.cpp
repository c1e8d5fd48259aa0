// The open-file check side by side with lsof: 200 extra idle processes hold files open inside
// and outside an item (some also work inside it), then the native scan and an lsof run with the
// check's own arguments are timed over several rounds, each followed by the same parsing. Prints
// both medians, the ratio, and whether both found exactly the same references.
//
// Usage: bench_occupancy [PROCESSES] [ROUNDS]
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "engine/preflight/migration_open_files.h"
#include "engine/verify/migration_integrity_verifier.h"
#include "platform/open_file_lister.h"
#include "support/bench_support.h"

namespace corvane::bench {
namespace {

using Reference = MigrationOpenFiles::Reference;

void writeFile(const std::string& path, const std::string& contents) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error("cannot create " + path);
  [[maybe_unused]] ssize_t written = write(fd, contents.data(), contents.size());
  close(fd);
}

// One idle process: a file of the item or of its neighbour open, every fourth working inside
// the item; it waits until it is killed.
pid_t spawnIdleHolder(const std::string& item, const std::string& outside, int number) {
  const std::string inside = fmt::format("{}/file{:03}.dat", item, number % 50);
  const std::string other = fmt::format("{}/file{:03}.dat", outside, number % 50);
  pid_t pid = fork();
  if (pid != 0) return pid;
  const int flags = number % 3 == 0 ? O_RDWR : O_RDONLY;
  if (number % 2 == 0) {
    open(inside.c_str(), flags);
  } else {
    open(other.c_str(), flags);
  }
  open(other.c_str(), O_RDONLY);
  if (number % 4 == 0 && chdir(item.c_str()) != 0) _exit(1);
  for (;;) pause();
}

std::vector<Reference> sorted(std::vector<Reference> references) {
  std::sort(references.begin(), references.end(), [](const Reference& a, const Reference& b) {
    return std::tie(a.pid, a.descriptor, a.inode, a.name) < std::tie(b.pid, b.descriptor, b.inode, b.name);
  });
  return references;
}

struct Round {
  double seconds = 0;
  double cpuSeconds = 0;  // this process and its threads, plus children reaped meanwhile
  std::vector<Reference> references;
};

double cpuSeconds() {
  double total = 0;
  for (int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
    rusage usage{};
    getrusage(who, &usage);
    total += static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
             static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  }
  return total;
}

Round timed(const MigrationOpenFiles::Inspect& lister, const std::string& item,
            const MigrationOpenFiles::FileIndex& index) {
  const double cpuStart = cpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  const auto references = MigrationOpenFiles::occupyingReferences(item, index, lister);
  Round round;
  round.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  round.cpuSeconds = cpuSeconds() - cpuStart;
  round.references = sorted(references);
  return round;
}

std::string loadAverage() {
  std::string text;
  if (FILE* file = std::fopen("/proc/loadavg", "r")) {
    char buffer[128] = {};
    if (std::fgets(buffer, sizeof buffer, file)) text = buffer;
    std::fclose(file);
  }
  return text.substr(0, text.find(' '));
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

int compare(int processes, int rounds) {
  const std::string lsof = platform::lsofExecutablePath();
  if (access(lsof.c_str(), X_OK) != 0) {
    fmt::print("bench/occupancy: lsof is not installed at {}\n", lsof);
    return 1;
  }
  char pattern[] = "/tmp/corvane-bench-occupancy.XXXXXX";
  if (!mkdtemp(pattern)) return 1;
  const std::string base = pattern;
  const std::string item = base + "/Item";
  const std::string outside = base + "/Outside";
  mkdir(item.c_str(), 0755);
  mkdir(outside.c_str(), 0755);
  for (int i = 0; i < 50; ++i) {
    writeFile(fmt::format("{}/file{:03}.dat", item, i), fmt::format("inside {}\n", i));
    writeFile(fmt::format("{}/file{:03}.dat", outside, i), fmt::format("outside {}\n", i));
  }
  std::vector<pid_t> holders;
  for (int i = 0; i < processes; ++i) holders.push_back(spawnIdleHolder(item, outside, i));
  // Let every holder reach its pause.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));

  const auto manifest =
      MigrationIntegrityVerifier::snapshot(item, RuntimeEntries::allow, ReadableCheck::skip, RemovableCheck::skip);
  const auto index = MigrationOpenFiles::fileIndex(manifest);
  std::vector<double> nativeTimes, lsofTimes, nativeCpu, lsofCpu;
  bool identical = true;
  std::size_t found = 0;
  const auto native = MigrationOpenFiles::defaultInspect();
  const auto peer = MigrationOpenFiles::lsofInspect(lsof);
  timed(native, item, index);  // warm the caches and the binaries
  timed(peer, item, index);
  fmt::print("bench/occupancy: {} extra idle processes, {} rounds, item {}, {} cores, load average {}\n", processes,
             rounds, item, std::thread::hardware_concurrency(), loadAverage());
  for (int round = 0; round < rounds; ++round) {
    const Round ours = timed(native, item, index);
    const Round theirs = timed(peer, item, index);
    nativeTimes.push_back(ours.seconds);
    lsofTimes.push_back(theirs.seconds);
    nativeCpu.push_back(ours.cpuSeconds);
    lsofCpu.push_back(theirs.cpuSeconds);
    identical = identical && ours.references == theirs.references;
    found = ours.references.size();
    fmt::print("  round {}: native {:7.2f} ms (cpu {:6.2f})   lsof {:7.2f} ms (cpu {:6.2f})   references {} / {}\n",
               round + 1, ours.seconds * 1000, ours.cpuSeconds * 1000, theirs.seconds * 1000, theirs.cpuSeconds * 1000,
               ours.references.size(), theirs.references.size());
  }
  const double nativeMedian = median(nativeTimes);
  const double lsofMedian = median(lsofTimes);
  printComparison("open-file check of one item", nativeMedian, "lsof -nP +c 0 -F0pcfatDin", lsofMedian, 0.10);
  fmt::print(
      "lsof takes {:.1f}x as long as the native scan (target >= 10x) and {:.1f}x its processor time; "
      "{} references, findings {}; load average {}\n",
      lsofMedian / nativeMedian, median(lsofCpu) / median(nativeCpu), found, identical ? "identical" : "DIFFERENT",
      loadAverage());

  for (pid_t pid : holders) kill(pid, SIGKILL);
  for (pid_t pid : holders) waitpid(pid, nullptr, 0);
  std::system(fmt::format("rm -rf '{}'", base).c_str());
  return identical ? 0 : 2;
}

}  // namespace
}  // namespace corvane::bench

int main(int argc, char** argv) {
  const int processes = argc > 1 ? std::atoi(argv[1]) : 200;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 7;
  return corvane::bench::compare(processes, rounds);
}
