#include "engine/preflight/migration_socket_owners.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <set>

#include "engine/preflight/migration_open_files.h"
#include "engine/preflight/migration_tool_deadlines.h"
#include "platform/open_file_fields.h"
#include "platform/open_file_lister.h"
#include "platform/process.h"
#include "platform/socket_holders.h"
#include "support/bounded_work.h"
#include "support/diagnostic_log.h"

namespace corvane {
namespace {

bool isValidUtf8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    std::size_t length = lead < 0x80           ? 1
                         : (lead >> 5) == 0x6  ? 2
                         : (lead >> 4) == 0xE  ? 3
                         : (lead >> 3) == 0x1E ? 4
                                               : 0;
    if (length == 0 || i + length > text.size()) return false;
    for (std::size_t k = 1; k < length; ++k) {
      if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return false;
    }
    i += length;
  }
  return true;
}

std::vector<MigrationSocketOwners::Holder> described(std::vector<MigrationSocketOwners::Holder> holders) {
  for (auto& holder : holders) holder.details = platform::describeProcess(holder.pid);
  return holders;
}

std::vector<MigrationSocketOwners::Holder> nativeHolders(const std::string& socketPath) {
  std::vector<MigrationSocketOwners::Holder> holders;
  for (const auto& holder : platform::unixSocketHolders(socketPath))
    holders.push_back({holder.pid, holder.command, {}});
  return described(std::move(holders));
}

}  // namespace

std::vector<MigrationSocketOwners::Holder> MigrationSocketOwners::holders(const std::string& socketPath) {
  if (!platform::hasNativeSocketHolders()) return holders(socketPath, platform::lsofExecutablePath());
  // The process table is read on a worker of its own: describing a process reads its memory,
  // which a process stuck on a hung mount can hold locked.
  const auto deadline = MigrationToolDeadlines::current().socketOwners.exit;
  try {
    if (auto found = runWithin(deadline, [socketPath] { return nativeHolders(socketPath); })) return *found;
    logWarning(fmt::format("Socket owner lookup for {} did not finish within {} ms", socketPath, deadline.count()));
  } catch (const std::exception& failure) {
    logDebug(fmt::format("Socket owner lookup failed: {}", failure.what()));
  }
  return {};
}

std::vector<MigrationSocketOwners::Holder> MigrationSocketOwners::holders(const std::string& socketPath,
                                                                          const std::string& lsofExecutable) {
  platform::ProcessRequest request;
  request.executable = lsofExecutable;
  request.arguments = {"-nP", "+c", "0", "-Fpc", "--", socketPath};
  request.workingDirectory = "/";
  const auto deadlines = MigrationToolDeadlines::current().socketOwners;
  platform::ProcessResult run;
  try {
    run = platform::runProcess(request, deadlines);
  } catch (const std::exception& failure) {
    logDebug(fmt::format("Socket owner lookup could not start: {}", failure.what()));
    return {};
  }
  if (run.timedOut || !run.exit.succeeded() || run.standardOutput.empty() || !isValidUtf8(run.standardOutput)) {
    return {};
  }
  auto found = runWithin(deadlines.readers, [holders = parse(run.standardOutput)] { return described(holders); });
  return found ? *found : std::vector<Holder>{};
}

std::vector<std::string> MigrationSocketOwners::names(const std::vector<Holder>& holders) {
  std::set<std::string> names;
  for (const auto& holder : holders) {
    if (!holder.command.empty()) names.insert(holder.command);
  }
  return {names.begin(), names.end()};
}

bool MigrationSocketOwners::heldOnlyByGitMonitors(const std::vector<Holder>& holders) {
  return !holders.empty() && std::all_of(holders.begin(), holders.end(), [](const Holder& holder) {
    return MigrationOpenFiles::isGitMonitor(holder.command, holder.details);
  });
}

std::vector<MigrationSocketOwners::Holder> MigrationSocketOwners::parse(std::string_view output) {
  std::vector<Holder> holders;
  std::size_t start = 0;
  while (start < output.size()) {
    auto end = output.find('\n', start);
    if (end == std::string_view::npos) end = output.size();
    const std::string_view line = output.substr(start, end - start);
    start = end + 1;
    if (line.empty()) continue;
    if (line.front() == 'p') {
      pid_t pid = 0;
      const auto [rest, error] = std::from_chars(line.data() + 1, line.data() + line.size(), pid);
      if (error == std::errc() && rest == line.data() + line.size()) {
        holders.push_back({pid, {}, {}});
      } else {
        holders.clear();  // a listing that cannot be read names nobody
        break;
      }
    }
    if (line.front() == 'c' && !holders.empty() && line.size() > 1)
      holders.back().command = platform::unescapeListerText(line.substr(1));
  }
  return holders;
}

}  // namespace corvane
