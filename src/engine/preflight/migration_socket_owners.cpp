#include "engine/preflight/migration_socket_owners.h"

#include <fmt/format.h>

#include <set>

#include "engine/preflight/migration_tool_deadlines.h"
#include "platform/open_file_fields.h"
#include "platform/open_file_lister.h"
#include "platform/process.h"
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

}  // namespace

std::vector<std::string> MigrationSocketOwners::lookup(const std::string& socketPath) {
  return lookup(socketPath, platform::lsofExecutablePath());
}

std::vector<std::string> MigrationSocketOwners::lookup(const std::string& socketPath,
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
  return parse(run.standardOutput);
}

std::vector<std::string> MigrationSocketOwners::parse(std::string_view output) {
  std::set<std::string> names;
  bool afterProcess = false;
  std::size_t start = 0;
  while (start < output.size()) {
    auto end = output.find('\n', start);
    if (end == std::string_view::npos) end = output.size();
    const std::string_view line = output.substr(start, end - start);
    start = end + 1;
    if (line.empty()) continue;
    if (line.front() == 'p') afterProcess = true;
    if (line.front() == 'c' && afterProcess && line.size() > 1)
      names.insert(platform::unescapeListerText(line.substr(1)));
  }
  return {names.begin(), names.end()};
}

}  // namespace corvane
