#include "engine/preflight/simulator_migration_preflight.h"

#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "engine/migration_issue.h"
#include "platform/running_applications.h"
#include "platform/simulator_tools.h"
#include "platform/volume.h"
#include "support/diagnostic_log.h"
#include "support/home_directory.h"
#include "support/paths.h"

namespace corvane {
namespace {

// The source as written and with its links resolved: a link that leads into simulator data is
// treated like the data itself.
std::vector<std::string> sourceForms(const std::string& source) {
  const std::string standardized = standardizePath(source);
  const std::string resolved = resolvingSymlinksInPath(standardized);
  if (resolved == standardized) return {standardized};
  return {standardized, resolved};
}

// The nearest directory at or above `path` that exists: the destination itself is made by the
// transfer, but it lands on the volume of its closest existing ancestor.
std::string nearestExistingDirectory(const std::string& path) {
  std::string candidate = standardizePath(path);
  while (true) {
    struct stat status {};
    if (::stat(candidate.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return candidate;
    if (candidate == "/" || candidate == ".") return candidate;
    candidate = parentPath(candidate);
  }
}

std::string statusText(const platform::ProcessExit& exit) {
  // A tool ended by a signal reports the signal's number, as the platform's task object does.
  return std::to_string(exit.exited() ? exit.exitCode : exit.signal);
}

}  // namespace

SimulatorMigrationPreflight::Services SimulatorMigrationPreflight::defaultServices() {
  Services services;
  services.homeDirectory = userHomeDirectory();
  services.volumeSupport = [](const std::string& destination) {
    const auto capabilities = platform::volumeCapabilities(nearestExistingDirectory(destination));
    return VolumeSupport{capabilities.symbolicLinks, capabilities.accessPermissions};
  };
  services.runningApplications = [] { return platform::runningApplicationBundleIdentifiers(); };
  services.listingTool = platform::simulatorListingTool();
  return services;
}

void SimulatorMigrationPreflight::check(const std::string& source, const std::string& destination,
                                        const Services& services) {
  validateSystemPath(source);
  if (!isUserData(source, services.homeDirectory)) return;
  const VolumeSupport support = services.volumeSupport(destination);
  const std::set<std::string> running =
      services.runningApplications ? services.runningApplications() : std::set<std::string>{};
  validateEnvironment(support.symbolicLinks, support.accessPermissions, running);
  checkDevices(services.listingTool, services.listingDeadlines);
}

void SimulatorMigrationPreflight::validateSystemPath(const std::string& source) {
  for (const auto& form : sourceForms(source)) {
    if (isSameOrDescendant(form, kSystemDirectory)) throw MigrationIssue("error.simulator_system_directory", source);
  }
}

bool SimulatorMigrationPreflight::isUserData(const std::string& source, const std::string& homeDirectory) {
  const std::string base = standardizePath(joinPath(homeDirectory, kUserDirectory));
  const std::string resolvedBase = resolvingSymlinksInPath(base);
  for (const auto& form : sourceForms(source)) {
    if (isSameOrDescendant(form, base) || isSameOrDescendant(form, resolvedBase)) return true;
  }
  return false;
}

void SimulatorMigrationPreflight::validateEnvironment(std::optional<bool> supportsLinks,
                                                      std::optional<bool> supportsPermissions,
                                                      const std::set<std::string>& runningApplications) {
  if (!supportsLinks.value_or(false) || !supportsPermissions.value_or(false))
    throw MigrationIssue("error.simulator_filesystem");
  if (runningApplications.count(std::string(kDevelopmentEnvironment)) != 0 ||
      runningApplications.count(std::string(kSimulatorApplication)) != 0)
    throw MigrationIssue("error.simulator_running");
}

void SimulatorMigrationPreflight::checkDevices(const std::optional<std::string>& listingTool,
                                               const platform::ProcessDeadlines& deadlines) {
  if (!listingTool) return;
  platform::ProcessRequest request;
  request.executable = *listingTool;
  request.arguments = {"simctl", "list", "devices", "--json"};
  // A failure to start the tool is thrown as the platform error it is.
  const platform::ProcessResult result = platform::runProcess(request, deadlines);
  if (result.timedOut) throw MigrationIssue("error.simulator_check_failed", "simctl timeout");
  if (result.readersTimedOut || result.outputReadFailed || !result.exit.succeeded()) {
    if (!result.standardError.empty()) logWarning("simctl: " + result.standardError);
    throw MigrationIssue("error.simulator_check_failed", "simctl exit " + statusText(result.exit));
  }
  validateDeviceList(result.standardOutput);
}

void SimulatorMigrationPreflight::validateDeviceList(std::string_view output) {
  using Json = nlohmann::json;
  bool anyRunning = false;
  try {
    const Json listing = Json::parse(output.begin(), output.end());
    // Decoded strictly like the record types: "devices" maps runtimes to lists of devices,
    // each with a textual "state"; other keys are ignored.
    if (!listing.is_object()) throw std::invalid_argument("the listing is not an object");
    const auto devices = listing.find("devices");
    if (devices == listing.end() || !devices->is_object())
      throw std::invalid_argument("\"devices\" is missing or not an object");
    for (const auto& [runtime, list] : devices->items()) {
      if (!list.is_array()) throw std::invalid_argument("the devices of " + runtime + " are not a list");
      for (const auto& device : list) {
        const auto state = device.is_object() ? device.find("state") : device.end();
        if (!device.is_object() || state == device.end() || !state->is_string())
          throw std::invalid_argument("a device of " + runtime + " has no textual \"state\"");
        if (state->get_ref<const std::string&>() != kShutdownState) anyRunning = true;
      }
    }
  } catch (const std::exception& error) {
    throw MigrationIssue("error.simulator_check_failed", error.what());
  }
  if (anyRunning) throw MigrationIssue("error.simulator_running");
}

}  // namespace corvane
