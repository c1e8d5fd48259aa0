// Shared pieces of the side-by-side benchmarks: timing a command or a child run of this
// benchmark, dropping the page cache, and printing a comparison line.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/process.h"

namespace corvane::bench {

// Wall-clock seconds of one run of a command; fails loudly when it fails.
double timeCommand(const std::string& executable, const std::vector<std::string>& arguments,
                   std::string* output = nullptr);

// Flushes dirty data and drops the page, dentry and inode caches (root only). False when the
// caches could not be dropped, so cold figures are not reported as such.
bool dropCaches();

// The median of `runs` timings of `measure`, with `prepare` run before each.
double medianSeconds(int runs, const std::function<void()>& prepare, const std::function<double()>& measure);

// Peak resident set of this process so far, in bytes (VmHWM).
std::int64_t peakResidentBytes();

void printComparison(const std::string& what, double oursSeconds, const std::string& peer, double peerSeconds,
                     double target);

}  // namespace corvane::bench
