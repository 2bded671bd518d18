// Copies the list on every change and walks it without a lock.
#include "server/observer_list.h"

#include <utility>

namespace vel {

std::shared_ptr<void> ObserverList::add(std::string key, Callback callback) {
  auto observer = std::make_shared<Observer>(std::move(key), std::move(callback));
  {
    const std::lock_guard lock(mutex_);
    auto observers =
        observers_ ? std::make_shared<Observers>(*observers_) : std::make_shared<Observers>();
    observers->push_back(observer);
    count_ = observers->size();
    observers_ = std::move(observers);
  }
  return {observer.get(), [list = weak_from_this(), observer](void*) {
            observer->ended = true;
            if (const auto living = list.lock()) living->remove(observer);
          }};
}

void ObserverList::remove(const std::shared_ptr<Observer>& observer) {
  // Goes away after the lock.
  std::shared_ptr<const Observers> former;
  const std::lock_guard lock(mutex_);
  auto observers = std::make_shared<Observers>(*observers_);
  std::erase(*observers, observer);
  count_ = observers->size();
  former = std::exchange(observers_, std::move(observers));
}

void ObserverList::notify(VELChange::Kind kind, bool isPrior,
                          const std::shared_ptr<VELConnection>& connection) const {
  if (count_.load(std::memory_order_relaxed) == 0) return;
  std::shared_ptr<const Observers> observers;
  {
    const std::lock_guard lock(mutex_);
    observers = observers_;
  }
  if (!observers) return;
  for (const auto& observer : *observers) {
    if (observer->ended) continue;
    observer->callback(VELChange{observer->key, kind, isPrior, connection});
  }
}

}  // namespace vel
