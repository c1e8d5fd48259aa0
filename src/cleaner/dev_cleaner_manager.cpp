#include "cleaner/dev_cleaner_manager.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>

#include "cleaner/cleaner_directory_sizer.h"
#include "cleaner/cleaner_tree_removal.h"
#include "platform/file_system.h"
#include "platform/host_system.h"
#include "settings/localization.h"
#include "support/diagnostic_log.h"

namespace corvane {
namespace {

std::string currentHomeDirectory() {
  if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') return home;
  if (const passwd* entry = ::getpwuid(::getuid()); entry != nullptr && entry->pw_dir != nullptr) return entry->pw_dir;
  return "/";
}

// Paths of a definition that exist and are folders (a link to a folder counts).
std::vector<std::string> existingDirectories(const CleanerDefinition& definition, const std::string& home) {
  std::vector<std::string> kept;
  for (const auto& path : definition.paths) {
    const std::string expanded = expandTilde(path, home);
    struct stat status {};
    if (::stat(expanded.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) kept.push_back(expanded);
  }
  return kept;
}

const CleanerDefinition* findDefinition(const std::vector<CleanerDefinition>& definitions, const std::string& id) {
  const auto found = std::find_if(definitions.begin(), definitions.end(),
                                  [&](const CleanerDefinition& definition) { return definition.id == id; });
  return found == definitions.end() ? nullptr : &*found;
}

}  // namespace

std::string_view stateName(CleanerState state) {
  switch (state) {
    case CleanerState::idle:
      return "idle";
    case CleanerState::scanning:
      return "scanning";
    case CleanerState::resultsReady:
      return "resultsReady";
    case CleanerState::cleaning:
      return "cleaning";
    case CleanerState::done:
      return "done";
  }
  return "";
}

DevCleanerManager::Configuration DevCleanerManager::Configuration::forCurrentUser() {
  Configuration configuration;
  configuration.homeDirectory = currentHomeDirectory();
  const auto system = platform::hostSystem();
  configuration.definitions = predefinedDefinitions(system);
  const char* path = std::getenv("PATH");
  configuration.dockerCandidates = dockerClientCandidates(system, path != nullptr ? path : "");
  return configuration;
}

DevCleanerManager::DevCleanerManager(MainQueue& mainQueue, Configuration configuration)
    : mainQueue_(mainQueue), configuration_(std::move(configuration)) {}

DevCleanerManager::~DevCleanerManager() {
  // Work already queued must find the manager gone; the threads stop at their next check.
  lifetime_.reset();
}

std::int64_t DevCleanerManager::selectedSize() const {
  std::int64_t total = 0;
  for (const auto& item : items_) total += item.isSelected ? item.sizeBytes : 0;
  return total;
}

void DevCleanerManager::notify(DevCleanerChange change) { observers_.notify(change); }

void DevCleanerManager::setState(CleanerState state) {
  if (currentState_ == state) return;
  currentState_ = state;
  notify(DevCleanerChange::state);
}

std::function<void()> DevCleanerManager::guarded(Lifetime lifetime, std::uint64_t run,
                                                 std::function<void(DevCleanerManager&)> work) {
  return [lifetime = std::move(lifetime), run, work = std::move(work)] {
    const auto alive = lifetime.lock();
    if (!alive || (*alive)->run_ != run) return;
    work(**alive);
  };
}

bool DevCleanerManager::startScanning() {
  if (currentState_ == CleanerState::cleaning) return false;
  if (scanTask_.joinable()) {
    scanTask_.request_stop();
    cancelledTasks_.push_back(std::move(scanTask_));
  }
  const std::uint64_t run = ++run_;
  items_.clear();
  totalScannedSize_ = 0;
  totalCleanedSize_ = 0;
  setState(CleanerState::scanning);
  notify(DevCleanerChange::items);
  notify(DevCleanerChange::totals);

  scanTask_ = std::jthread(
      [configuration = configuration_, queue = &mainQueue_, lifetime = Lifetime(lifetime_), run](std::stop_token stop) {
        auto scanned = scan(configuration, stop);
        if (stop.stop_requested()) return;
        queue->post(guarded(lifetime, run, [scanned = std::move(scanned)](DevCleanerManager& manager) mutable {
          manager.deliverScan(std::move(scanned));
        }));
      });
  return true;
}

std::vector<DevCleanerManager::ScannedItem> DevCleanerManager::scan(const Configuration& configuration,
                                                                    const std::stop_token& stop) {
  std::vector<ScannedItem> scanned;
  const DockerClient docker(configuration.dockerCandidates, configuration.dockerDeadlines);
  for (const auto& definition : configuration.definitions) {
    if (stop.stop_requested()) break;
    CleanItem item;
    item.id = definition.id;
    item.category = definition.category;
    item.descriptionKey = definition.descKey;
    item.riskLevel = definition.riskLevel;
    if (definition.isDocker()) {
      const auto reclaimable = docker.getDockerReclaimableSpace();
      if (!reclaimable) continue;  // no client or no daemon: nothing to offer
      item.sizeBytes = *reclaimable;
    } else {
      item.paths = existingDirectories(definition, configuration.homeDirectory);
      const auto sizing =
          CleanerDirectorySizer(stop).calculateDirectorySizeSynchronously(item.paths, definition.excludedNames);
      if (sizing.cancelled) break;
      item.sizeBytes = sizing.bytes;
    }
    if (item.sizeBytes < 1) continue;
    item.isSelected = item.riskLevel == CleanRiskLevel::safe;
    scanned.push_back({std::move(item), definition.nameKey});
  }
  // Grouped by category; within one, the definitions' order.
  std::stable_sort(scanned.begin(), scanned.end(), [](const ScannedItem& left, const ScannedItem& right) {
    return left.item.category < right.item.category;
  });
  return scanned;
}

void DevCleanerManager::deliverScan(std::vector<ScannedItem> scanned) {
  items_.clear();
  totalScannedSize_ = 0;
  for (auto& entry : scanned) {
    entry.item.name = localized(entry.nameKey);
    totalScannedSize_ += entry.item.sizeBytes;
    items_.push_back(std::move(entry.item));
  }
  scanTask_ = {};  // finished: nothing left to cancel
  notify(DevCleanerChange::items);
  notify(DevCleanerChange::totals);
  setState(CleanerState::resultsReady);
}

bool DevCleanerManager::setItemSelection(const std::string& id, ItemSelection selection) {
  const auto found = std::find_if(items_.begin(), items_.end(), [&](const CleanItem& item) { return item.id == id; });
  if (found == items_.end()) return false;
  const bool selected = selection == ItemSelection::selected;
  if (found->isSelected != selected) {
    found->isSelected = selected;
    notify(DevCleanerChange::items);
  }
  return true;
}

bool DevCleanerManager::startCleaning() {
  if (currentState_ != CleanerState::resultsReady && currentState_ != CleanerState::done) return false;
  if (cleanTask_.joinable()) cleanTask_.join();  // a finished clean's thread
  const std::uint64_t run = ++run_;
  std::vector<std::pair<std::size_t, CleanItem>> work;
  for (std::size_t index = 0; index < items_.size(); ++index) {
    if (items_[index].isSelected && items_[index].status.kind != CleanItemStatus::Kind::success) {
      work.emplace_back(index, items_[index]);
    }
  }
  totalCleanedSize_ = 0;
  notify(DevCleanerChange::totals);
  setState(CleanerState::cleaning);

  cleanTask_ = std::jthread([work = std::move(work), configuration = configuration_, queue = &mainQueue_,
                             lifetime = Lifetime(lifetime_), run](std::stop_token stop) {
    const DockerClient docker(configuration.dockerCandidates, configuration.dockerDeadlines);
    for (const auto& [index, item] : work) {
      if (stop.stop_requested()) return;
      std::optional<CleanFailure> failure;
      if (const auto* definition = findDefinition(configuration.definitions, item.id)) {
        failure = cleanItem(item, *definition, docker, stop);
      } else {
        failure = CleanFailure{"cleaner.error.unknown_item", {item.id}, {}};
      }
      queue->post(guarded(lifetime, run, [index, failure = std::move(failure)](DevCleanerManager& manager) mutable {
        manager.deliverItemResult(index, std::move(failure));
      }));
    }
    queue->post(guarded(lifetime, run, [](DevCleanerManager& manager) { manager.deliverCleanFinished(); }));
  });
  return true;
}

std::optional<CleanFailure> DevCleanerManager::cleanItem(const CleanItem& item, const CleanerDefinition& definition,
                                                         const DockerClient& docker, const std::stop_token& stop) {
  if (definition.isDocker()) {
    if (!docker.locate()) return CleanFailure{"cleaner.error.docker_not_installed", {}, {}};
    if (!docker.executeCommand(*definition.customCommand, definition.customArgs.value_or(std::vector<std::string>{}))) {
      return CleanFailure{"cleaner.error.docker_command_failed", {}, {}};
    }
    return std::nullopt;
  }
  logInfo("🧹 cleaning " + item.id);
  return CleanerTreeRemoval(stop).deleteDirectories(item.paths, definition.cleaning, definition.excludedNames);
}

void DevCleanerManager::deliverItemResult(std::size_t index, std::optional<CleanFailure> failure) {
  if (index >= items_.size()) return;
  auto& item = items_[index];
  if (failure) {
    item.status = CleanItemStatus::failed(std::move(*failure));
  } else {
    item.status = CleanItemStatus::success();
    totalCleanedSize_ += item.sizeBytes;
  }
  notify(DevCleanerChange::items);
  notify(DevCleanerChange::totals);
}

void DevCleanerManager::deliverCleanFinished() { setState(CleanerState::done); }

}  // namespace corvane
