#include "support/bench_support.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace corvane::bench {

double timeCommand(const std::string& executable, const std::vector<std::string>& arguments, std::string* output) {
  platform::ProcessRequest request;
  request.executable = executable;
  request.arguments = arguments;
  platform::ProcessDeadlines deadlines;
  deadlines.exit = std::chrono::minutes(30);
  const auto start = std::chrono::steady_clock::now();
  auto result = platform::runProcess(request, deadlines);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!result.exit.succeeded()) {
    throw std::runtime_error(executable + " failed: " + result.standardError);
  }
  if (output) *output = result.standardOutput;
  return seconds;
}

bool dropCaches() {
  sync();
  std::ofstream control("/proc/sys/vm/drop_caches");
  if (!control) return false;
  control << "3\n";
  return static_cast<bool>(control.flush());
}

double medianSeconds(int runs, const std::function<void()>& prepare, const std::function<double()>& measure) {
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    if (prepare) prepare();
    times.push_back(measure());
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

std::int64_t peakResidentBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stoll(line.substr(6)) * 1024;
  }
  return 0;
}

void printComparison(const std::string& what, double oursSeconds, const std::string& peer, double peerSeconds,
                     double target) {
  const double ratio = peerSeconds > 0 ? oursSeconds / peerSeconds : 0;
  fmt::print("{:<44} corvane {:8.3f} s   {:<22} {:8.3f} s   ratio {:5.2f}x  (target <= {:.2f}x) {}\n", what,
             oursSeconds, peer, peerSeconds, ratio, target, ratio <= target ? "ok" : "MISSED");
}

}  // namespace corvane::bench
