// Later: a thread that calls what it is given some milliseconds later, for routes that answer from
// elsewhere.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace bench {

class Later {
 public:
  Later() : thread_([this] { run(); }) {}
  ~Later() {
    {
      const std::lock_guard guard(mutex_);
      ends_ = true;
    }
    changed_.notify_one();
    thread_.join();
  }
  Later(const Later&) = delete;
  Later& operator=(const Later&) = delete;

  void call(std::function<void()> work) {
    {
      const std::lock_guard guard(mutex_);
      waiting_.emplace_back(Clock::now() + kDelay, std::move(work));
    }
    changed_.notify_one();
  }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr auto kDelay = std::chrono::milliseconds(20);

  void run() {
    std::unique_lock lock(mutex_);
    while (!ends_) {
      if (waiting_.empty()) {
        changed_.wait(lock);
      } else if (const auto due = waiting_.front().first; Clock::now() < due) {
        changed_.wait_until(lock, due);
      } else {
        const std::function<void()> work = std::move(waiting_.front().second);
        waiting_.pop_front();
        lock.unlock();
        work();
        lock.lock();
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_; in the order of their times, since the delay is the same for all.
  std::deque<std::pair<Clock::time_point, std::function<void()>>> waiting_;
  bool ends_ = false;
  std::thread thread_;
};

}  // namespace bench
