// The one way to observe a manager: `observe` hands back a Subscription, and the observer stays
// registered exactly as long as the Subscription lives.
//
// The observers live apart from the list's owner so that a subscription may outlive it safely.
// Dropping a subscription waits for a notification running on another thread, so an object may
// drop its subscription in its destructor; on the notifying thread itself (an observer that
// unsubscribes) the recursive lock lets it through.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace corvane {

class Subscription {
 public:
  Subscription() = default;
  explicit Subscription(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
  Subscription(Subscription&& other) noexcept : cancel_(std::exchange(other.cancel_, nullptr)) {}
  Subscription& operator=(Subscription&& other) noexcept {
    if (this != &other) {
      reset();
      cancel_ = std::exchange(other.cancel_, nullptr);
    }
    return *this;
  }
  Subscription(const Subscription&) = delete;
  Subscription& operator=(const Subscription&) = delete;
  ~Subscription() { reset(); }

  void reset() {
    if (auto cancel = std::exchange(cancel_, nullptr)) cancel();
  }

 private:
  std::function<void()> cancel_;
};

template <typename... Arguments>
class ObserverList {
 public:
  using Observer = std::function<void(Arguments...)>;

  [[nodiscard]] Subscription add(Observer observer) {
    std::uint64_t id = 0;
    {
      std::lock_guard lock(registry_->mutex);
      id = ++registry_->lastId;
      registry_->observers.emplace(id, std::make_shared<Observer>(std::move(observer)));
    }
    return Subscription([registry = std::weak_ptr<Registry>(registry_), id] {
      if (auto alive = registry.lock()) {
        std::lock_guard dispatching(alive->dispatch);
        std::lock_guard lock(alive->mutex);
        alive->observers.erase(id);
      }
    });
  }

  bool empty() const {
    std::lock_guard lock(registry_->mutex);
    return registry_->observers.empty();
  }

  // Calls every observer registered when the round starts; one removed by an earlier observer
  // of the same round is not called any more.
  void notify(const Arguments&... arguments) const {
    std::lock_guard dispatching(registry_->dispatch);
    std::vector<std::pair<std::uint64_t, std::shared_ptr<Observer>>> current;
    {
      std::lock_guard lock(registry_->mutex);
      current.assign(registry_->observers.begin(), registry_->observers.end());
    }
    for (const auto& [id, observer] : current) {
      bool stillRegistered = false;
      {
        std::lock_guard lock(registry_->mutex);
        stillRegistered = registry_->observers.count(id) > 0;
      }
      if (stillRegistered) (*observer)(arguments...);
    }
  }

 private:
  struct Registry {
    std::recursive_mutex dispatch;
    std::mutex mutex;
    std::uint64_t lastId = 0;
    std::map<std::uint64_t, std::shared_ptr<Observer>> observers;
  };
  std::shared_ptr<Registry> registry_ = std::make_shared<Registry>();
};

}  // namespace corvane
