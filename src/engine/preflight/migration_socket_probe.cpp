#include "engine/preflight/migration_socket_probe.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "engine/preflight/migration_tool_deadlines.h"
#include "platform/process.h"
#include "platform/unix_socket.h"
#include "support/descriptor_io.h"
#include "support/diagnostic_log.h"
#include "support/paths.h"

namespace corvane {
namespace {

constexpr std::array<std::string_view, 4> kStateNames = {"active", "inactive", "unknown", "missing"};

// Answers of a non-blocking connect that mean a peer is bound to the name: connected, still
// connecting, or bound with another socket type.
bool meansActive(int result) {
  return result == 0 || result == EINPROGRESS || result == EPROTOTYPE || result == EALREADY || result == EAGAIN;
}

MigrationSocketProbe::State connectVerdict(const std::string& name) {
  using State = MigrationSocketProbe::State;
  auto stream = platform::connectUnixSocket(name, platform::UnixSocketType::stream);
  if (!stream) return State::unknown;
  if (meansActive(*stream)) return State::active;
  if (*stream != ECONNREFUSED) return State::unknown;
  // A datagram server refuses stream connects on some systems; ask with its own type.
  auto datagram = platform::connectUnixSocket(name, platform::UnixSocketType::datagram);
  if (!datagram) return State::unknown;
  if (meansActive(*datagram)) return State::active;
  if (*datagram == ECONNREFUSED) return State::inactive;
  return State::unknown;
}

std::optional<MigrationEntry> readQuietly(const std::string& name) {
  try {
    return MigrationEntry::read(name, AT_FDCWD);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

std::string_view MigrationSocketProbe::stateName(State state) { return kStateNames[static_cast<std::size_t>(state)]; }

std::optional<MigrationSocketProbe::State> MigrationSocketProbe::stateFromName(std::string_view name) {
  for (std::size_t i = 0; i < kStateNames.size(); ++i) {
    if (kStateNames[i] == name) return static_cast<State>(i);
  }
  return std::nullopt;
}

nlohmann::ordered_json MigrationSocketProbe::toJson(const Observation& observation) {
  nlohmann::ordered_json json;
  json["state"] = stateName(observation.state);
  if (observation.entry) json["entry"] = corvane::toJson(*observation.entry);
  return json;
}

MigrationSocketProbe::Observation MigrationSocketProbe::fromJson(const nlohmann::json& json) {
  if (!json.is_object() || !json.contains("state") || !json["state"].is_string()) {
    throw std::invalid_argument("not a socket observation");
  }
  auto state = stateFromName(json["state"].get<std::string>());
  if (!state) throw std::invalid_argument("unknown socket state");
  Observation observation{*state, std::nullopt};
  if (json.contains("entry")) observation.entry = entryFromJson(json["entry"]);
  return observation;
}

std::map<std::string, std::string> MigrationSocketProbe::childEnvironment(
    std::map<std::string, std::string> environment) {
  for (const char* name : {"XCTestConfigurationFilePath", "XCTestSessionIdentifier", "XCInjectBundle",
                           "XCInjectBundleInto", "DYLD_INSERT_LIBRARIES"}) {
    environment.erase(name);
  }
  environment["LLVM_PROFILE_FILE"] = "/dev/null";
  return environment;
}

MigrationSocketProbe::Observation MigrationSocketProbe::inspect(const std::string& socketPath,
                                                                const std::optional<std::string>& executable) {
  const Observation unknown{State::unknown, std::nullopt};
  if (!executable) return unknown;
  platform::ProcessRequest request;
  request.executable = *executable;
  // Only the file name has to fit a socket address: the child works from the parent directory.
  request.arguments = {std::string(kCommandLineFlag), lastComponent(socketPath)};
  request.workingDirectory = parentPath(socketPath);
  request.environment = childEnvironment(platform::currentEnvironment());
  request.outputLimit = 64 * 1024;
  // Past the deadline the child is asked to terminate, then killed; either way it is reaped
  // before this returns.
  const auto deadlines = MigrationToolDeadlines::current().socketProbe;
  platform::ProcessResult run;
  try {
    run = platform::runProcess(request, deadlines);
  } catch (const std::exception& failure) {
    logWarning(fmt::format("Socket probe could not start for {}: {}", socketPath, failure.what()));
    return unknown;
  }
  if (run.timedOut) {
    logWarning(fmt::format("Socket probe timed out for {}", socketPath));
    return unknown;
  }
  if (!run.exit.succeeded() || run.standardOutput.empty() || run.outputTruncated) return unknown;
  try {
    return fromJson(nlohmann::json::parse(run.standardOutput));
  } catch (const std::exception& failure) {
    logWarning(fmt::format("Socket probe answered unreadably for {}: {}", socketPath, failure.what()));
    return unknown;
  }
}

MigrationSocketProbe::Probe MigrationSocketProbe::probeWith(std::optional<std::string> executable) {
  return
      [executable = std::move(executable)](const std::string& socketPath) { return inspect(socketPath, executable); };
}

MigrationSocketProbe::Probe MigrationSocketProbe::defaultProbe() {
  std::optional<std::string> executable;
  try {
    executable = platform::currentExecutablePath();
  } catch (const std::exception& failure) {
    logWarning(fmt::format("Own executable not found for socket probes: {}", failure.what()));
  }
  return probeWith(std::move(executable));
}

MigrationSocketProbe::Observation MigrationSocketProbe::inspectLeaf(const std::string& name) {
  const Observation unknown{State::unknown, std::nullopt};
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
      name.size() > platform::kUnixSocketNameLimit) {
    return unknown;
  }
  std::optional<MigrationEntry> entry;
  try {
    entry = MigrationEntry::read(name, AT_FDCWD);
  } catch (const std::exception&) {
    return unknown;
  }
  if (!entry) return {State::missing, std::nullopt};
  if (entry->kind != MigrationEntry::Kind::socket) return unknown;
  const State state = connectVerdict(name);
  return {state, readQuietly(name)};
}

bool MigrationSocketProbe::handleCommandLine(int argc, const char* const* argv) {
  if (argc < 2 || argv[1] != kCommandLineFlag) return false;
  const Observation observation = argc == 3 ? inspectLeaf(argv[2]) : Observation{State::unknown, std::nullopt};
  std::string text;
  try {
    text = toJson(observation).dump(-1, ' ', false, nlohmann::json::error_handler_t::strict);
  } catch (const std::exception&) {
    return true;  // nothing is written when the observation cannot be encoded
  }
  // A parent that stopped listening gets nothing more; the probe has nothing else to say.
  (void)writeAll(STDOUT_FILENO, text);
  return true;
}

}  // namespace corvane
