// VELProgress: a flag, and a handler that one of two threads runs.
#include "corvane/progress.h"

#include <utility>

std::shared_ptr<VELProgress> VELProgress::discreteProgress(int64_t totalUnitCount) {
  return std::make_shared<VELProgress>(totalUnitCount);
}

void VELProgress::cancel() {
  std::function<void()> handler;
  {
    const std::lock_guard lock(mutex_);
    cancelled_ = true;
    handler.swap(handler_);
  }
  if (handler) handler();
}

bool VELProgress::isCancelled() const {
  const std::lock_guard lock(mutex_);
  return cancelled_;
}

void VELProgress::setCancellationHandler(std::function<void()> handler) {
  {
    const std::lock_guard lock(mutex_);
    // What was there before goes away after the lock.
    if (!cancelled_) return handler_.swap(handler);
  }
  if (handler) handler();
}

std::any VELProgress::userInfoObject(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = user_info_.find(key);
  return found == user_info_.end() ? std::any() : found->second;
}

void VELProgress::setUserInfoObjectForKey(std::any object, const std::string& key) {
  const std::lock_guard lock(mutex_);
  if (object.has_value()) {
    user_info_[key].swap(object);
  } else if (const auto found = user_info_.find(key); found != user_info_.end()) {
    found->second.swap(object);
    user_info_.erase(found);
  }
}
