#include "cleaner/docker_client.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <set>

#include "platform/file_access.h"
#include "platform/file_system.h"
#include "platform/posix_error.h"
#include "support/diagnostic_log.h"

namespace corvane {
namespace {

std::string_view trimmed(std::string_view text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  return text;
}

std::vector<std::string_view> splitLines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const auto end = text.find('\n');
    lines.push_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return lines;
}

std::vector<std::string_view> splitTabs(std::string_view line) {
  std::vector<std::string_view> fields;
  while (true) {
    const auto tab = line.find('\t');
    fields.push_back(line.substr(0, tab));
    if (tab == std::string_view::npos) return fields;
    line.remove_prefix(tab + 1);
  }
}

// `image inspect` reports "sha256:" and the full digest, `images` the short form: an ID is in
// use when one is a prefix of the other once the algorithm is dropped.
std::string_view bareImageId(std::string_view id) {
  id = trimmed(id);
  if (id.rfind("sha256:", 0) == 0) id.remove_prefix(7);
  return id;
}

bool sameImage(std::string_view left, std::string_view right) {
  left = bareImageId(left);
  right = bareImageId(right);
  if (left.empty() || right.empty()) return false;
  return left.size() <= right.size() ? right.substr(0, left.size()) == left : left.substr(0, right.size()) == right;
}

}  // namespace

std::int64_t parseDockerSize(std::string_view text) {
  text = trimmed(text);
  if (text.empty() || text == "0B") return 0;
  static constexpr std::pair<std::string_view, double> kUnits[] = {
      {"TB", 1e12}, {"GB", 1e9}, {"MB", 1e6}, {"KB", 1e3}, {"B", 1}};
  for (const auto& [suffix, factor] : kUnits) {
    if (text.size() < suffix.size() || text.substr(text.size() - suffix.size()) != suffix) continue;
    const std::string_view number = text.substr(0, text.size() - suffix.size());
    double value = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
    if (number.empty() || error != std::errc() || end != number.data() + number.size()) return 0;
    const double bytes = value * factor;
    // 2^63 is exactly representable; anything at or past it, negative or not a number is junk.
    if (!std::isfinite(bytes) || bytes < 0 || bytes >= 9223372036854775808.0) return 0;
    return static_cast<std::int64_t>(bytes);
  }
  return 0;
}

std::vector<std::string> dockerClientCandidates(platform::HostSystem system, std::string_view pathVariable) {
  if (system == platform::HostSystem::macOS) {
    return {"/usr/local/bin/docker", "/opt/homebrew/bin/docker", "/usr/bin/docker"};
  }
  std::vector<std::string> candidates{"/usr/local/bin/docker", "/usr/bin/docker"};
  std::string_view rest = pathVariable;
  while (!rest.empty()) {
    const auto colon = rest.find(':');
    const std::string_view directory = rest.substr(0, colon);
    // Relative PATH entries depend on the working directory; a cleaner does not run those.
    if (!directory.empty() && directory.front() == '/') {
      std::string candidate = std::string(directory) + (directory.back() == '/' ? "docker" : "/docker");
      if (std::find(candidates.begin(), candidates.end(), candidate) == candidates.end()) {
        candidates.push_back(std::move(candidate));
      }
    }
    if (colon == std::string_view::npos) break;
    rest.remove_prefix(colon + 1);
  }
  return candidates;
}

DockerClient::DockerClient(std::vector<std::string> candidates, DockerDeadlines deadlines)
    : candidates_(std::move(candidates)), deadlines_(deadlines) {}

std::optional<std::string> DockerClient::locate() const {
  for (const auto& candidate : candidates_) {
    if (platform::isExecutable(candidate)) return candidate;
  }
  return std::nullopt;
}

std::optional<platform::ProcessResult> DockerClient::run(const std::string& executable,
                                                         const std::vector<std::string>& arguments,
                                                         const platform::ProcessDeadlines& deadlines) const {
  platform::ProcessRequest request;
  request.executable = executable;
  request.arguments = arguments;
  try {
    auto result = platform::runProcess(request, deadlines);
    if (result.timedOut) logWarning("🐳 docker did not finish in time and was stopped");
    return result;
  } catch (const platform::PosixError& error) {
    logWarning(std::string("🐳 cannot start docker: ") + error.what());
    return std::nullopt;
  }
}

std::optional<std::string> DockerClient::runDockerCommand(const std::vector<std::string>& arguments) const {
  const auto client = locate();
  if (!client) return std::nullopt;
  auto result = run(*client, arguments, deadlines_.query);
  if (!result || result->timedOut || !result->exit.succeeded()) {
    if (result) logInfo("🐳 docker failed: " + std::string(trimmed(result->standardError)));
    return std::nullopt;
  }
  return std::move(result->standardOutput);
}

bool DockerClient::executeCommand(const std::string& command, const std::vector<std::string>& arguments) const {
  std::optional<std::string> executable = command == "docker" ? locate() : std::optional<std::string>(command);
  if (!executable) return false;
  const auto result = run(*executable, arguments, deadlines_.prune);
  if (result && !result->exit.succeeded()) logWarning("🐳 " + command + " failed: " + result->standardError);
  return result && !result->timedOut && result->exit.succeeded();
}

std::optional<std::int64_t> DockerClient::getDockerReclaimableSpace() const {
  // Listing running containers needs the daemon: when that fails there is nothing to show.
  const auto running = runDockerCommand({"ps", "--format", "{{.Image}}"});
  if (!running) return std::nullopt;

  std::vector<std::string> inUse;
  for (auto line : splitLines(*running)) {
    const auto image = trimmed(line);
    if (image.empty()) continue;
    const auto id = runDockerCommand({"image", "inspect", std::string(image), "--format", "{{.ID}}"});
    if (id && !trimmed(*id).empty()) inUse.emplace_back(trimmed(*id));
  }

  std::int64_t total = 0;
  if (const auto images = runDockerCommand({"images", "-a", "--format", "{{.ID}}\t{{.Size}}"})) {
    // An image with several tags is listed once per tag but stored once.
    std::set<std::string, std::less<>> counted;
    for (auto line : splitLines(*images)) {
      const auto fields = splitTabs(line);
      if (fields.size() < 2) continue;
      if (!counted.emplace(bareImageId(fields[0])).second) continue;
      const bool used =
          std::any_of(inUse.begin(), inUse.end(), [&](const std::string& id) { return sameImage(id, fields[0]); });
      if (!used) total += parseDockerSize(fields[1]);
    }
  }
  if (const auto usage = runDockerCommand({"system", "df", "--format", "{{.Type}}\t{{.Reclaimable}}"})) {
    for (auto line : splitLines(*usage)) {
      const auto fields = splitTabs(line);
      if (fields.size() < 2 || trimmed(fields[0]) != "Build Cache") continue;
      // "1.2GB (45%)": the size is the leading word.
      const auto reclaimable = trimmed(fields[1]);
      total += parseDockerSize(reclaimable.substr(0, reclaimable.find(' ')));
    }
  }
  return total;
}

}  // namespace corvane
