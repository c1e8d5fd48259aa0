// Whether anybody listens on a UNIX-domain socket file of an item. The connect happens in a
// short-lived child (Corvane's own binary started with "--corvane-inspect-socket"), so a peer
// that hangs or misbehaves can never stall or crash the program itself.
#pragma once

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "engine/manifest/migration_entry.h"

namespace corvane {

class MigrationSocketProbe {
 public:
  enum class State { active, inactive, unknown, missing };

  // One probe's verdict and the socket file as read after the connect attempt. Also the JSON
  // document the child prints.
  struct Observation {
    State state = State::unknown;
    std::optional<MigrationEntry> entry;
    bool operator==(const Observation&) const = default;
  };

  using Probe = std::function<Observation(const std::string& socketPath)>;

  static constexpr std::string_view kCommandLineFlag = "--corvane-inspect-socket";

  // Runs the probe child `executable` for the socket at `socketPath`; never fails: every
  // failure is `unknown` without an entry. Without an executable the answer is `unknown`.
  static Observation inspect(const std::string& socketPath, const std::optional<std::string>& executable);
  // A probe that runs `executable` (tests use the built binary; the program uses itself).
  static Probe probeWith(std::optional<std::string> executable);
  // The probe that runs this program's own executable.
  static Probe defaultProbe();

  // The child side: when argv names the probe mode, probes, writes the observation to standard
  // output and returns true (the caller then ends the process with _exit(0)).
  static bool handleCommandLine(int argc, const char* const* argv);

  // The probe proper, on a file name in the current directory.
  static Observation inspectLeaf(const std::string& name);

  // The environment of the child: the program's own without the test-injection variables, with
  // coverage output sent nowhere.
  static std::map<std::string, std::string> childEnvironment(std::map<std::string, std::string> environment);

  static std::string_view stateName(State state);
  static std::optional<State> stateFromName(std::string_view name);
  static nlohmann::ordered_json toJson(const Observation& observation);
  // Throws on a document that is not an observation.
  static Observation fromJson(const nlohmann::json& json);
};

}  // namespace corvane
