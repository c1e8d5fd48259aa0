// The items a user may choose to move: the applications in this system's application folders
// and the folders the user added, each with its size and whether a program inside it runs.
// Listing is quick and happens on the owner thread; sizes and running states are measured on a
// background thread and arrive one item at a time, the list kept largest first.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/application_folders.h"
#include "support/main_queue.h"
#include "support/observer_list.h"

namespace corvane {

class MigrationCandidates {
 public:
  struct Candidate {
    std::string path;
    std::string name;
    bool isApplication = false;
    bool addedByUser = false;
    std::optional<std::int64_t> sizeBytes;  // absent until measured, or when it cannot be read
    bool measured = false;
    bool running = false;  // a program inside it runs
    bool operator==(const Candidate&) const = default;
  };
  struct Configuration {
    std::vector<platform::ApplicationFolder> folders;
    static Configuration forThisSystem();
  };
  using Observer = std::function<void()>;

  // `mainQueue` must outlive the object.
  MigrationCandidates(MainQueue& mainQueue, Configuration configuration);
  // Stops measuring and waits for it.
  ~MigrationCandidates();
  MigrationCandidates(const MigrationCandidates&) = delete;
  MigrationCandidates& operator=(const MigrationCandidates&) = delete;

  // Owner thread.
  const std::vector<Candidate>& candidates() const { return candidates_; }
  bool isMeasuring() const { return measuring_; }
  [[nodiscard]] Subscription observe(Observer observer) { return observers_.add(std::move(observer)); }

  // Lists the folders again (links are left out: they are items already moved) and measures
  // everything anew.
  void refresh();
  // A folder the user chose or dropped. False when it is listed already or is not a real folder
  // (a link, a file, nothing).
  bool addFolder(const std::string& path);

 private:
  void measure();
  void deliver(std::uint64_t run, Candidate measured);
  void sort();

  MainQueue& mainQueue_;
  Configuration configuration_;
  std::vector<Candidate> candidates_;
  std::vector<std::string> added_;
  bool measuring_ = false;
  std::uint64_t run_ = 0;
  ObserverList<> observers_;
  std::shared_ptr<MigrationCandidates*> lifetime_ = std::make_shared<MigrationCandidates*>(this);
  // Earlier runs asked to stop: never joined on the owner thread, which must not wait on a walk.
  std::vector<std::jthread> stoppedThreads_;
  std::jthread measuringThread_;
};

}  // namespace corvane
