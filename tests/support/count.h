// Count: something that a test waits for. Gives up after a while, so that a fault shows as a failure
// instead of a hang.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vel::test {

/// A count that goes up.
/// Queue:   any.
class Count {
 public:
  void add(int amount = 1) {
    const std::lock_guard lock(mutex_);
    value_ += amount;
    condition_.notify_all();
  }
  int value() const {
    const std::lock_guard lock(mutex_);
    return value_;
  }
  /// Waits until the count is `value` or more; false when that takes too long.
  [[nodiscard]] bool reaches(int value) const {
    std::unique_lock lock(mutex_);
    // Not wait_for: its clock is one that ThreadSanitizer of GCC 12 does not know.
    const auto limit = std::chrono::system_clock::now() + std::chrono::seconds(60);
    return condition_.wait_until(lock, limit, [&] { return value_ >= value; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable condition_;
  // Guarded by mutex_.
  int value_ = 0;
};

}  // namespace vel::test
