// Keeps migrations away from device-simulator data: the system-wide simulator folder is never
// moved, and the user's own simulator data only to a volume with links and permissions, while
// neither the development environment nor the simulator runs and every device is shut down.
// Systems without simulators (Linux) have no listing tool: the device check passes there and
// the path checks still apply.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/process.h"

namespace corvane {

class SimulatorMigrationPreflight {
 public:
  SimulatorMigrationPreflight() = delete;

  static constexpr std::string_view kSystemDirectory = "/Library/Developer/CoreSimulator";
  static constexpr std::string_view kUserDirectory = "Library/Developer/CoreSimulator";  // below home
  static constexpr std::string_view kDevelopmentEnvironment = "com.apple.dt.Xcode";
  static constexpr std::string_view kSimulatorApplication = "com.apple.iphonesimulator";
  static constexpr std::string_view kShutdownState = "Shutdown";
  // The listing may take 15 s; then it is asked to terminate, 2 s later killed; its output
  // readers get 2 s more.
  static constexpr platform::ProcessDeadlines kListingDeadlines{
      std::chrono::milliseconds(15000), std::chrono::milliseconds(2000), std::chrono::milliseconds(2000)};

  struct VolumeSupport {
    std::optional<bool> symbolicLinks;  // absent: the volume did not say
    std::optional<bool> accessPermissions;
  };

  // What the checks ask of the system; tests replace single pieces.
  struct Services {
    std::string homeDirectory;
    // What the destination's volume supports; a failure to find out is thrown as it is.
    std::function<VolumeSupport(const std::string& destination)> volumeSupport;
    std::function<std::set<std::string>()> runningApplications;
    std::optional<std::string> listingTool;  // absent: this system has no simulators
    platform::ProcessDeadlines listingDeadlines = kListingDeadlines;
  };
  static Services defaultServices();

  // Every check for one item, in order; the checks after the user-data test run only for the
  // user's simulator data. Throws MigrationIssue (and platform errors as they come).
  static void check(const std::string& source, const std::string& destination, const Services& services);

  // Fails with "error.simulator_system_directory" and the source for the system folder or
  // anything inside it.
  static void validateSystemPath(const std::string& source);
  // Whether the source is the user's simulator folder or lies inside it.
  static bool isUserData(const std::string& source, const std::string& homeDirectory);
  // "error.simulator_filesystem" unless both capabilities are known and true;
  // "error.simulator_running" when the development environment or the simulator runs.
  static void validateEnvironment(std::optional<bool> supportsLinks, std::optional<bool> supportsPermissions,
                                  const std::set<std::string>& runningApplications);
  // Runs "<tool> simctl list devices --json" within the deadlines and validates its output;
  // without a tool there is nothing to check.
  static void checkDevices(const std::optional<std::string>& listingTool,
                           const platform::ProcessDeadlines& deadlines = kListingDeadlines);
  // "error.simulator_check_failed" with the decoder's description for undecodable output;
  // "error.simulator_running" when any device is in a state other than "Shutdown".
  static void validateDeviceList(std::string_view output);
};

}  // namespace corvane
