// Who observes a server's connections. When they are told is the server's business.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "corvane/connection.h"
#include "corvane/server.h"

namespace vel {

/// The observers of one server.
/// Owner:   shared, so that an observation may outlive its server.
/// Queue:   any; no lock is held while an observer is called.
class ObserverList : public std::enable_shared_from_this<ObserverList> {
 public:
  using Callback = std::function<void(const VELChange&)>;

  /// Adds an observer that is told until the result goes away. A callback that is running then on
  /// another thread still ends, and no further one begins.
  std::shared_ptr<void> add(std::string key, Callback callback);

  /// Tells every observer, in the order in which they came.
  void notify(VELChange::Kind kind, bool isPrior,
              const std::shared_ptr<VELConnection>& connection) const;

 private:
  struct Observer {
    Observer(std::string observedKey, Callback toTell)
        : key(std::move(observedKey)), callback(std::move(toTell)) {}

    const std::string key;
    const Callback callback;
    std::atomic<bool> ended{false};
  };
  using Observers = std::vector<std::shared_ptr<Observer>>;

  void remove(const std::shared_ptr<Observer>& observer);

  // Spares servers without observers the lock.
  std::atomic<size_t> count_{0};
  mutable std::mutex mutex_;
  // Guarded by mutex_; replaced as a whole, so that it can be walked without the lock. None when
  // empty.
  std::shared_ptr<const Observers> observers_;
};

}  // namespace vel
