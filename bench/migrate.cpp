// A whole migration side by side with what a careful person does by hand, between two
// loop-mounted ext4 volumes: `cp -a SRC DST && sync -f DST`, caches dropped, `diff -r`; and with
// `rsync -aHAX SRC/ DST/ && sync -f DST`. Two generated trees: many small files in many folders
// with links and hard links, and a few large files of random data. Across two volumes the
// kernel cannot copy (copy_file_range gives EXDEV), so the copier's read/write fallback is the
// path measured here. Caches are dropped before every run.
//
// With --entries, the memory and time of `corvane migrate` and `corvane back` on trees of the
// given numbers of entries (tiny files kept inline in their inodes, so a million of them fit a
// small volume made with enough inodes): peak resident memory per command and time per entry,
// which must stay flat as the tree grows.
//
// Usage: bench_migrate [--small-files N] [--large-mib M] [--runs R] [--corvane PATH]
//        bench_migrate --entries 100000,300000,1000000 [--corvane PATH]
//        bench_migrate --measure-engine SRC DSTDIR   (internal) the engine's phases in a fresh process
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/manifest/migration_link_plan.h"
#include "engine/transfer/migration_staging_area.h"
#include "engine/transfer/progress_file_copier.h"
#include "engine/verify/migration_entry_repair.h"
#include "engine/verify/migration_integrity_verifier.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "platform/process.h"
#include "platform/unique_fd.h"
#include "support/bench_support.h"
#include "support/paths.h"

namespace corvane::bench {
namespace {

constexpr double kMiB = 1024.0 * 1024.0;
constexpr int kFilesPerFolder = 20;
constexpr int kFoldersPerGroup = 30;
constexpr int kLargeFiles = 4;

volatile sig_atomic_t interrupted = 0;

void stopIfInterrupted() {
  if (interrupted) throw std::runtime_error("interrupted");
}

// Runs a tool that must succeed; its time is not measured.
void run(const std::string& executable, const std::vector<std::string>& arguments) {
  stopIfInterrupted();
  platform::ProcessRequest request;
  request.executable = executable;
  request.arguments = arguments;
  platform::ProcessDeadlines deadlines;
  deadlines.exit = std::chrono::minutes(30);
  auto result = platform::runProcess(request, deadlines);
  if (!result.exit.succeeded()) {
    std::string line = executable;
    for (const auto& argument : arguments) line += " " + argument;
    throw std::runtime_error(line + " failed: " + result.standardError);
  }
}

double timed(const std::string& executable, const std::vector<std::string>& arguments) {
  stopIfInterrupted();
  return timeCommand(executable, arguments);
}

void requireDroppedCaches() {
  if (!dropCaches()) throw std::runtime_error("the page cache cannot be dropped (needs root)");
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// SplitMix64: fast, seeded, and good enough that no file system can compress or dedupe it.
class RandomBytes {
 public:
  explicit RandomBytes(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  void fill(char* data, std::size_t length) {
    std::size_t i = 0;
    for (; i + 8 <= length; i += 8) {
      const std::uint64_t value = next();
      std::memcpy(data + i, &value, 8);
    }
    for (std::uint64_t value = next(); i < length; ++i, value >>= 8) data[i] = static_cast<char>(value);
  }

 private:
  std::uint64_t state_;
};

void writeFile(const std::string& path, const char* data, std::size_t length) {
  platform::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!fd) platform::throwErrno(path);
  for (std::size_t written = 0; written < length;) {
    ssize_t n = write(fd.get(), data + written, length - written);
    if (n < 0) platform::throwErrno(path);
    written += static_cast<std::size_t>(n);
  }
  if (fd.close() != 0) platform::throwErrno(path);
}

void makeDirectory(const std::string& path) {
  if (mkdir(path.c_str(), 0755) != 0) platform::throwErrno(path);
}

struct TreeShape {
  std::int64_t files = 0;
  std::int64_t folders = 0;
  std::int64_t links = 0;
  std::int64_t hardLinks = 0;
  std::int64_t bytes = 0;
};

// Folders of 20 entries in groups of 30: files of 100 B to 16 KiB, every 10th entry a link to a
// sibling, every 15th a hard link to one, and one file of each folder read-only.
TreeShape generateSmallTree(const std::string& root, int files) {
  TreeShape shape;
  RandomBytes random(0x5eed);
  std::vector<char> buffer(16 * 1024);
  makeDirectory(root);
  const int folders = std::max(1, files / kFilesPerFolder);
  std::string group;
  for (int folder = 0; folder < folders; ++folder) {
    stopIfInterrupted();
    if (folder % kFoldersPerGroup == 0) {
      group = fmt::format("{}/group{:03}", root, folder / kFoldersPerGroup);
      makeDirectory(group);
      ++shape.folders;
    }
    const std::string directory = fmt::format("{}/folder{:02}", group, folder % kFoldersPerGroup);
    makeDirectory(directory);
    ++shape.folders;
    for (int entry = 0; entry < kFilesPerFolder && shape.files + shape.links + shape.hardLinks < files; ++entry) {
      const std::string path = fmt::format("{}/item{:02}.dat", directory, entry);
      if (entry % 10 == 9) {
        if (symlink("item00.dat", path.c_str()) != 0) platform::throwErrno(path);
        ++shape.links;
      } else if (entry % 15 == 14) {
        if (link((directory + "/item01.dat").c_str(), path.c_str()) != 0) platform::throwErrno(path);
        ++shape.hardLinks;
      } else {
        const std::size_t length = 100 + random.next() % (16 * 1024 - 100);
        random.fill(buffer.data(), length);
        writeFile(path, buffer.data(), length);
        if (entry == 2) chmod(path.c_str(), 0444);
        ++shape.files;
        shape.bytes += static_cast<std::int64_t>(length);
      }
    }
  }
  return shape;
}

TreeShape generateLargeTree(const std::string& root, int mebibytes) {
  TreeShape shape;
  makeDirectory(root);
  ++shape.folders;
  RandomBytes random(0x1a7e);
  std::vector<char> block(1 << 20);
  for (int index = 0; index < kLargeFiles; ++index) {
    const std::string path = fmt::format("{}/large{}.bin", root, index);
    platform::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (!fd) platform::throwErrno(path);
    for (int mib = 0; mib < mebibytes; ++mib) {
      if (mib % 64 == 0) stopIfInterrupted();
      random.fill(block.data(), block.size());
      if (write(fd.get(), block.data(), block.size()) != static_cast<ssize_t>(block.size())) platform::throwErrno(path);
    }
    if (fd.close() != 0) platform::throwErrno(path);
    ++shape.files;
    shape.bytes += static_cast<std::int64_t>(mebibytes) << 20;
  }
  return shape;
}

// An ext4 image mounted through a loop device; unmounted and deleted again however the run ends.
class LoopVolume {
 public:
  // `inodes` > 0 asks for that many inodes, with data of up to 60 bytes kept inside them.
  LoopVolume(const std::string& directory, const std::string& name, std::int64_t bytes, std::int64_t inodes = 0)
      : image_(directory + "/" + name + ".img"), mountPoint_(directory + "/" + name) {
    {
      platform::UniqueFd fd(open(image_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
      if (!fd || ftruncate(fd.get(), bytes) != 0) platform::throwErrno(image_);
    }
    // Inode tables and journal written now, so no background initialisation runs during a measure.
    std::vector<std::string> options = {"-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0"};
    if (inodes > 0) options.insert(options.end(), {"-N", std::to_string(inodes), "-I", "256", "-O", "inline_data"});
    options.push_back(image_);
    run("mkfs.ext4", options);
    makeDirectory(mountPoint_);
    run("mount", {"-o", "loop", image_, mountPoint_});
    mounted_ = true;
  }
  ~LoopVolume() {
    if (mounted_) {
      bool unmounted = false;
      for (int attempt = 0; attempt < 5 && !unmounted; ++attempt) {
        platform::ProcessRequest request;
        request.executable = "umount";
        request.arguments = {mountPoint_};
        unmounted = platform::runProcess(request).exit.succeeded();
        if (!unmounted) sleep(1);
      }
      if (!unmounted) {
        platform::ProcessRequest request;
        request.executable = "umount";
        request.arguments = {"-l", mountPoint_};
        platform::runProcess(request);
      }
    }
    rmdir(mountPoint_.c_str());
    unlink(image_.c_str());
  }
  LoopVolume(const LoopVolume&) = delete;
  LoopVolume& operator=(const LoopVolume&) = delete;

  const std::string& path() const { return mountPoint_; }

  // Everything but lost+found goes, so each run starts on the same empty volume.
  void empty() const {
    for (const auto& child : std::filesystem::directory_iterator(mountPoint_)) {
      if (child.path().filename() != "lost+found") run("rm", {"-rf", child.path().string()});
    }
  }

 private:
  std::string image_;
  std::string mountPoint_;
  bool mounted_ = false;
};

// ---- the engine's phases, in a fresh process so its peak memory is its own ----

int measureEngine(const std::string& source, const std::string& destinationDirectory) {
  const auto scanStart = std::chrono::steady_clock::now();
  const auto manifest =
      MigrationIntegrityVerifier::snapshot(source, RuntimeEntries::allow, ReadableCheck::check, RemovableCheck::check);
  const auto relocated = MigrationLinkPlan::relocatedTargets(source, manifest);
  const double scanSeconds = secondsSince(scanStart);
  // The copy starts as cold as the peers' do.
  requireDroppedCaches();
  const std::int64_t memoryBeforeCopy = peakResidentBytes();

  const std::string target = destinationDirectory + "/" + lastComponent(source);
  MigrationStagingArea staging(source, target, destinationDirectory);
  const auto copyStart = std::chrono::steady_clock::now();
  ProgressFileCopier::copy(source, staging.payload(), manifest, {}, relocated, staging, {});
  const double copySeconds = secondsSince(copyStart);
  const auto flushStart = std::chrono::steady_clock::now();
  {
    platform::UniqueFd root(open(staging.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!root) platform::throwErrno(staging.root());
    platform::flushFileSystem(root.get(), staging.root());
    if (root.close() != 0) platform::throwErrno(staging.root());
  }
  const double flushSeconds = secondsSince(flushStart);
  const std::int64_t memoryAfterCopy = peakResidentBytes();

  MigrationVerificationOptions options;
  options.repair = MigrationEntryRepair::rebuild;
  options.relocated = relocated;
  const auto verifyStart = std::chrono::steady_clock::now();
  MigrationIntegrityVerifier::verify(source, staging.payload(), manifest, options);
  const double verifySeconds = secondsSince(verifyStart);
  staging.discardAfterRollback();
  fmt::print("{} {} {} {} {} {} {}\n", scanSeconds, copySeconds, flushSeconds, verifySeconds, memoryBeforeCopy,
             memoryAfterCopy, peakResidentBytes());
  return 0;
}

// ---- memory and time against the number of entries ----

// Folders of 100 entries in groups of 100: files of 1 to 48 bytes, every 10th entry a link to a
// sibling, every 15th a hard link to one. Names as long as a project's usually are.
TreeShape generateManyEntryTree(const std::string& root, std::int64_t entries) {
  TreeShape shape;
  RandomBytes random(0xe17e);
  char buffer[64];
  makeDirectory(root);
  ++shape.folders;
  std::string group;
  for (std::int64_t folder = 0; shape.files + shape.links + shape.hardLinks + shape.folders < entries; ++folder) {
    stopIfInterrupted();
    if (folder % 100 == 0) {
      group = fmt::format("{}/package-group-{:05}", root, folder / 100);
      makeDirectory(group);
      ++shape.folders;
    }
    const std::string directory = fmt::format("{}/module-folder-{:03}", group, folder % 100);
    makeDirectory(directory);
    ++shape.folders;
    for (int entry = 0; entry < 100 && shape.files + shape.links + shape.hardLinks + shape.folders < entries; ++entry) {
      const std::string path = fmt::format("{}/source-file-{:03}.js", directory, entry);
      if (entry % 10 == 9) {
        if (symlink("source-file-000.js", path.c_str()) != 0) platform::throwErrno(path);
        ++shape.links;
      } else if (entry % 15 == 14) {
        if (link((directory + "/source-file-001.js").c_str(), path.c_str()) != 0) platform::throwErrno(path);
        ++shape.hardLinks;
      } else {
        const std::size_t length = 1 + random.next() % 48;
        random.fill(buffer, length);
        writeFile(path, buffer, length);
        ++shape.files;
        shape.bytes += static_cast<std::int64_t>(length);
      }
    }
  }
  return shape;
}

struct CommandMeasure {
  double seconds = 0;
  std::int64_t peakBytes = 0;
};

// One corvane command, timed, with the peak resident memory of its process.
CommandMeasure measureCommand(const std::string& corvane, const std::vector<std::string>& arguments,
                              const std::string& reportPath) {
  std::vector<std::string> timeArguments = {"-f", "%M", "-o", reportPath, corvane};
  timeArguments.insert(timeArguments.end(), arguments.begin(), arguments.end());
  CommandMeasure measure;
  measure.seconds = timed("/usr/bin/time", timeArguments);
  std::ifstream report(reportPath);
  long long kibibytes = 0;
  report >> kibibytes;
  measure.peakBytes = kibibytes * 1024;
  unlink(reportPath.c_str());
  return measure;
}

int scaling(const std::string& corvane, const std::vector<std::int64_t>& sizes, const std::string& directory) {
  fmt::print("bench/migrate --entries: corvane migrate and corvane back between two ext4 loop volumes\n");
  fmt::print("{:>9}  {:>10} {:>10} {:>12}  {:>10} {:>10} {:>12}\n", "entries", "migrate s", "us/entry", "peak MiB",
             "back s", "us/entry", "peak MiB");
  std::int64_t largestPeak = 0;
  for (const std::int64_t entries : sizes) {
    // Directories take a block each; the files live in their inodes.
    const std::int64_t bytes = std::max<std::int64_t>(std::int64_t{1} << 30, entries * 3000);
    LoopVolume source(directory, "source", bytes, entries + entries / 4 + 10000);
    LoopVolume destination(directory, "destination", bytes, entries + entries / 4 + 10000);
    const std::string item = source.path() + "/project";
    const TreeShape shape = generateManyEntryTree(item, entries);
    run("sync", {"-f", source.path()});
    requireDroppedCaches();
    const std::string report = directory + "/peak-memory";
    const CommandMeasure migrate =
        measureCommand(corvane, {"migrate", item, "--to", destination.path(), "--yes"}, report);
    struct stat st {};
    if (lstat(item.c_str(), &st) != 0 || !S_ISLNK(st.st_mode))
      throw std::runtime_error("corvane migrate did not leave a link at " + item);
    requireDroppedCaches();
    const CommandMeasure back = measureCommand(corvane, {"back", item, "--disk", destination.path()}, report);
    if (lstat(item.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
      throw std::runtime_error("corvane back did not bring the folder back to " + item);
    const std::int64_t counted = shape.files + shape.links + shape.hardLinks + shape.folders;
    auto perEntry = [&](double seconds) { return seconds * 1e6 / static_cast<double>(counted); };
    fmt::print("{:>9}  {:>10.2f} {:>10.1f} {:>12.1f}  {:>10.2f} {:>10.1f} {:>12.1f}\n", counted, migrate.seconds,
               perEntry(migrate.seconds), static_cast<double>(migrate.peakBytes) / kMiB, back.seconds,
               perEntry(back.seconds), static_cast<double>(back.peakBytes) / kMiB);
    std::fflush(stdout);
    largestPeak = std::max({largestPeak, migrate.peakBytes, back.peakBytes});
    if (entries >= 1000000) {
      const double target = 400.0 * 1000 * 1000;
      fmt::print("peak memory at {} entries: {:.1f} MB, target < 400 MB: {}\n", counted,
                 static_cast<double>(std::max(migrate.peakBytes, back.peakBytes)) / 1e6,
                 static_cast<double>(std::max(migrate.peakBytes, back.peakBytes)) < target ? "met" : "MISSED");
    }
  }
  fmt::print("(per-entry time should stay flat as the tree grows; caches dropped before each command)\n");
  return 0;
}

// ---- the comparison ----

struct Timings {
  // careful manual procedure
  double manualCopy = 0, manualFlush = 0, manualDrop = 0, manualDiff = 0;
  // rsync
  double rsyncCopy = 0, rsyncFlush = 0;
  // the engine's phases in-process
  double scan = 0, copy = 0, flush = 0, verify = 0;
  std::int64_t copyMemoryGrowth = 0, enginePeak = 0;
  // the whole command
  double whole = 0;
  std::int64_t wholePeak = 0;

  double manualTotal() const { return manualCopy + manualFlush + manualDrop + manualDiff; }
};

double median(std::vector<Timings>& runs, double Timings::*field) {
  std::vector<double> values;
  for (const auto& run : runs) values.push_back(run.*field);
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

std::int64_t largest(const std::vector<Timings>& runs, std::int64_t Timings::*field) {
  std::int64_t value = 0;
  for (const auto& run : runs) value = std::max(value, run.*field);
  return value;
}

void printInformation(const std::string& what, double oursSeconds, const std::string& peer, double peerSeconds) {
  const double ratio = peerSeconds > 0 ? oursSeconds / peerSeconds : 0;
  fmt::print("{:<44} corvane {:8.3f} s   {:<22} {:8.3f} s   ratio {:5.2f}x  (no target)\n", what, oursSeconds, peer,
             peerSeconds, ratio);
}

struct Setup {
  std::string corvane;
  const LoopVolume& source;
  const LoopVolume& destination;
};

Timings measureOnce(const Setup& setup, const std::string& tree, const std::string& name) {
  Timings timings;
  const std::string& destination = setup.destination.path();

  // (a) cp -a && sync -f, caches dropped, diff -r from the medium.
  setup.destination.empty();
  requireDroppedCaches();
  const std::string manual = destination + "/" + name;
  timings.manualCopy = timed("cp", {"-a", tree, manual});
  timings.manualFlush = timed("sync", {"-f", manual});
  const auto dropStart = std::chrono::steady_clock::now();
  requireDroppedCaches();
  timings.manualDrop = secondsSince(dropStart);
  timings.manualDiff = timed("diff", {"-r", "--no-dereference", tree, manual});

  // (b) rsync -aHAX && sync -f.
  setup.destination.empty();
  requireDroppedCaches();
  timings.rsyncCopy = timed("rsync", {"-aHAX", tree + "/", manual + "/"});
  timings.rsyncFlush = timed("sync", {"-f", manual});

  // The engine's scan, copy + flush and verification, each timed inside one fresh process.
  setup.destination.empty();
  requireDroppedCaches();
  std::string output;
  timeCommand(platform::currentExecutablePath(), {"--measure-engine", tree, destination}, &output);
  long long before = 0, afterCopy = 0, peak = 0;
  if (std::sscanf(output.c_str(), "%lf %lf %lf %lf %lld %lld %lld", &timings.scan, &timings.copy, &timings.flush,
                  &timings.verify, &before, &afterCopy, &peak) != 7) {
    throw std::runtime_error("unexpected engine measure output: " + output);
  }
  timings.copyMemoryGrowth = afterCopy - before;
  timings.enginePeak = peak;

  // The whole command on a fresh copy of the tree (made untimed), which it replaces by a link.
  setup.destination.empty();
  const std::string work = setup.source.path() + "/work";
  run("rm", {"-rf", work});
  makeDirectory(work);
  const std::string item = work + "/" + name;
  run("cp", {"-a", tree, item});
  requireDroppedCaches();
  const std::string memoryReport = work + "/.peak-memory";
  timings.whole = timed("/usr/bin/time",
                        {"-f", "%M", "-o", memoryReport, setup.corvane, "migrate", item, "--to", destination, "--yes"});
  std::ifstream report(memoryReport);
  long long kibibytes = 0;
  report >> kibibytes;
  timings.wholePeak = kibibytes * 1024;
  struct stat st {};
  if (lstat(item.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) {
    throw std::runtime_error("corvane migrate did not leave a link at " + item);
  }
  run("diff", {"-r", "--no-dereference", tree, destination + "/Directories" + item});
  run("rm", {"-rf", work});
  setup.destination.empty();
  return timings;
}

void report(const std::string& title, std::vector<Timings>& runs, double copyVersusCpTarget,
            double copyVersusRsyncTarget) {
  fmt::print("\n== {} ({} run{}, medians) ==\n", title, runs.size(), runs.size() == 1 ? "" : "s");
  const double manualCopyFlush = median(runs, &Timings::manualCopy) + median(runs, &Timings::manualFlush);
  const double rsyncCopyFlush = median(runs, &Timings::rsyncCopy) + median(runs, &Timings::rsyncFlush);
  const double copyFlush = median(runs, &Timings::copy) + median(runs, &Timings::flush);
  std::vector<double> manualTotals;
  for (const auto& run : runs) manualTotals.push_back(run.manualTotal());
  std::sort(manualTotals.begin(), manualTotals.end());

  printComparison("whole migration vs careful manual", median(runs, &Timings::whole), "cp+sync+drop+diff",
                  manualTotals[manualTotals.size() / 2], 1.0);
  auto copyLine = [](const std::string& what, double ours, const std::string& peer, double theirs, double target) {
    if (target > 0)
      printComparison(what, ours, peer, theirs, target);
    else
      printInformation(what, ours, peer, theirs);
  };
  copyLine("copy + flush vs cp -a && sync -f", copyFlush, "cp -a && sync -f", manualCopyFlush, copyVersusCpTarget);
  copyLine("copy + flush vs rsync -aHAX && sync -f", copyFlush, "rsync && sync -f", rsyncCopyFlush,
           copyVersusRsyncTarget);
  printInformation("  copy alone vs cp -a", median(runs, &Timings::copy), "cp -a", median(runs, &Timings::manualCopy));
  printInformation("  flush alone vs sync -f", median(runs, &Timings::flush), "sync -f",
                   median(runs, &Timings::manualFlush));
  printInformation("verification vs drop caches + diff -r", median(runs, &Timings::verify), "drop + diff -r",
                   median(runs, &Timings::manualDrop) + median(runs, &Timings::manualDiff));
  fmt::print("{:<44} corvane {:8.3f} s   (the peers have no separate scan)\n", "scan (preflight checks)",
             median(runs, &Timings::scan));
  fmt::print("peak memory: corvane migrate {:.1f} MiB, engine phases {:.1f} MiB, growth during the copy {:.1f} MiB\n",
             static_cast<double>(largest(runs, &Timings::wholePeak)) / kMiB,
             static_cast<double>(largest(runs, &Timings::enginePeak)) / kMiB,
             static_cast<double>(largest(runs, &Timings::copyMemoryGrowth)) / kMiB);
}

struct Arguments {
  std::vector<std::int64_t> entries;
  int smallFiles = 30000;
  int largeMiB = 512;
  int runs = 1;
  std::string corvane;
};

std::optional<Arguments> parse(int argc, char** argv) {
  Arguments arguments;
  arguments.corvane = parentPath(platform::currentExecutablePath()) + "/corvane";
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    if (i + 1 >= argc) return std::nullopt;
    const std::string value = argv[++i];
    if (option == "--small-files")
      arguments.smallFiles = std::atoi(value.c_str());
    else if (option == "--large-mib")
      arguments.largeMiB = std::atoi(value.c_str());
    else if (option == "--runs")
      arguments.runs = std::atoi(value.c_str());
    else if (option == "--corvane")
      arguments.corvane = value;
    else if (option == "--entries") {
      for (std::size_t start = 0; start <= value.size();) {
        std::size_t end = value.find(',', start);
        if (end == std::string::npos) end = value.size();
        const std::int64_t count = std::atoll(value.substr(start, end - start).c_str());
        if (count < 1000) return std::nullopt;
        arguments.entries.push_back(count);
        start = end + 1;
      }
    } else
      return std::nullopt;
  }
  if (arguments.smallFiles < 1 || arguments.largeMiB < 1 || arguments.runs < 1) return std::nullopt;
  return arguments;
}

void onSignal(int) { interrupted = 1; }

int compare(const Arguments& arguments) {
  if (geteuid() != 0) {
    fmt::print(stderr, "bench/migrate needs root: it mounts loop volumes and drops the page cache\n");
    return 1;
  }
  if (access(arguments.corvane.c_str(), X_OK) != 0) {
    fmt::print(stderr, "no corvane binary at {} (build it, or pass --corvane PATH)\n", arguments.corvane);
    return 1;
  }
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  char pattern[] = "/tmp/corvane-bench-migrate.XXXXXX";
  if (!mkdtemp(pattern)) return 1;
  const std::string directory = pattern;
  int status = 0;
  try {
    const std::int64_t largeBytes = static_cast<std::int64_t>(kLargeFiles) * arguments.largeMiB << 20;
    const std::int64_t smallBytes = static_cast<std::int64_t>(arguments.smallFiles) * 16 * 1024;
    const std::int64_t slack = std::int64_t{1} << 30;
    // The source holds both trees and the working copy of one; the destination one copy at a time.
    if (!arguments.entries.empty()) {
      status = scaling(arguments.corvane, arguments.entries, directory);
      rmdir(directory.c_str());
      return status;
    }
    LoopVolume source(directory, "source", 2 * (largeBytes + smallBytes) + slack);
    LoopVolume destination(directory, "destination", largeBytes + smallBytes + slack);
    const Setup setup{arguments.corvane, source, destination};

    makeDirectory(source.path() + "/trees");
    const std::string smallTree = source.path() + "/trees/small";
    const std::string largeTree = source.path() + "/trees/large";
    const TreeShape small = generateSmallTree(smallTree, arguments.smallFiles);
    const TreeShape large = generateLargeTree(largeTree, arguments.largeMiB);
    run("sync", {"-f", source.path()});
    fmt::print("bench/migrate: ext4 loop volumes {} -> {}, copy through read/write (EXDEV)\n", source.path(),
               destination.path());
    fmt::print("small tree: {} files, {} folders, {} links, {} hard links, {:.1f} MiB\n", small.files, small.folders,
               small.links, small.hardLinks, static_cast<double>(small.bytes) / kMiB);
    fmt::print("large tree: {} files of {} MiB of random data\n", large.files, arguments.largeMiB);

    std::vector<Timings> smallRuns, largeRuns;
    for (int i = 0; i < arguments.runs; ++i) smallRuns.push_back(measureOnce(setup, smallTree, "small"));
    for (int i = 0; i < arguments.runs; ++i) largeRuns.push_back(measureOnce(setup, largeTree, "large"));
    report(fmt::format("small tree, {} files", small.files + small.links + small.hardLinks), smallRuns, 0, 1.0);
    report(fmt::format("large tree, {} x {} MiB", large.files, arguments.largeMiB), largeRuns, 0.95, 0);
    fmt::print(
        "(manual procedure: cp -a, sync -f, drop caches, diff -r --no-dereference; caches dropped before "
        "every run)\n");
  } catch (const std::exception& error) {
    fmt::print(stderr, "bench/migrate stopped: {}\n", error.what());
    status = 1;
  }
  rmdir(directory.c_str());
  return status;
}

}  // namespace
}  // namespace corvane::bench

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--measure-engine") {
    try {
      return corvane::bench::measureEngine(argv[2], argv[3]);
    } catch (const std::exception& error) {
      fmt::print(stderr, "engine measure failed: {}\n", error.what());
      return 1;
    }
  }
  auto arguments = corvane::bench::parse(argc, argv);
  if (!arguments) {
    fmt::print(stderr,
               "usage: bench_migrate [--small-files N] [--large-mib M] [--runs R] [--corvane PATH]\n"
               "       bench_migrate --entries 100000,300000,1000000 [--corvane PATH]\n");
    return 2;
  }
  return corvane::bench::compare(*arguments);
}
