// The developer cleaner: finds and measures caches, the Trash and Docker's unused data, lets the
// user pick, and removes the picked items. State is published as values with change
// notifications; scans and cleans run on background threads and hand their results to the
// owner's thread through its MainQueue, so any front end can sit on top.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "cleaner/clean_item.h"
#include "cleaner/cleaner_definition.h"
#include "cleaner/docker_client.h"
#include "support/main_queue.h"
#include "support/observer_list.h"

namespace corvane {

enum class CleanerState { idle, scanning, resultsReady, cleaning, done };
std::string_view stateName(CleanerState state);

// What changed, for observers that redraw only part of what they show.
enum class DevCleanerChange { state, items, totals };

enum class ItemSelection { selected, unselected };

class DevCleanerManager {
 public:
  struct Configuration {
    std::string homeDirectory;  // what "~" stands for
    std::vector<CleanerDefinition> definitions;
    std::vector<std::string> dockerCandidates;  // where the Docker client is looked for, in order
    DockerDeadlines dockerDeadlines;

    // The running user's home and this system's definitions and Docker locations.
    static Configuration forCurrentUser();
  };
  using Observer = std::function<void(DevCleanerChange)>;

  // `mainQueue` must outlive the manager; observers are called on the thread that drains it.
  DevCleanerManager(MainQueue& mainQueue, Configuration configuration);
  // Asks running tasks to stop and waits for them.
  ~DevCleanerManager();
  DevCleanerManager(const DevCleanerManager&) = delete;
  DevCleanerManager& operator=(const DevCleanerManager&) = delete;

  CleanerState currentState() const { return currentState_; }
  const std::vector<CleanItem>& items() const { return items_; }
  std::int64_t totalScannedSize() const { return totalScannedSize_; }
  std::int64_t totalCleanedSize() const { return totalCleanedSize_; }
  std::int64_t selectedSize() const;
  const std::vector<CleanerDefinition>& definitions() const { return configuration_.definitions; }

  [[nodiscard]] Subscription observe(Observer observer) { return observers_.add(std::move(observer)); }

  // Cancels a running scan and starts a new one; refused (false) while cleaning.
  bool startScanning();
  // Cleans the selected items not cleaned yet; refused (false) unless results are shown.
  bool startCleaning();
  // False when there is no item with that id.
  bool setItemSelection(const std::string& id, ItemSelection selection);

 private:
  struct ScannedItem {
    CleanItem item;  // everything but the localized name
    std::string nameKey;
  };
  static std::vector<ScannedItem> scan(const Configuration& configuration, const std::stop_token& stop);
  static std::optional<CleanFailure> cleanItem(const CleanItem& item, const CleanerDefinition& definition,
                                               const DockerClient& docker, const std::stop_token& stop);

  void deliverScan(std::vector<ScannedItem> scanned);
  void deliverItemResult(std::size_t index, std::optional<CleanFailure> failure);
  void deliverCleanFinished();
  void setState(CleanerState state);
  void notify(DevCleanerChange change);
  // Wraps work for the main queue so that it runs only while the manager and its run still
  // exist. Built on background threads from what was captured when the run started.
  using Lifetime = std::weak_ptr<DevCleanerManager*>;
  static std::function<void()> guarded(Lifetime lifetime, std::uint64_t run,
                                       std::function<void(DevCleanerManager&)> work);

  MainQueue& mainQueue_;
  Configuration configuration_;
  CleanerState currentState_ = CleanerState::idle;
  std::vector<CleanItem> items_;
  std::int64_t totalScannedSize_ = 0;
  std::int64_t totalCleanedSize_ = 0;

  ObserverList<DevCleanerChange> observers_;
  std::uint64_t run_ = 0;  // increases with every scan and clean; stale results are dropped
  std::shared_ptr<DevCleanerManager*> lifetime_ = std::make_shared<DevCleanerManager*>(this);

  std::jthread scanTask_;
  std::jthread cleanTask_;
  std::vector<std::jthread> cancelledTasks_;  // scans asked to stop, joined on destruction
};

}  // namespace corvane
