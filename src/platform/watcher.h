// Watcher: sees that a loop's thread has been inside one handler for long, and has a spare thread run
// the loop.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/clock.h"

namespace vel {

class EventLoop;
class LoopPool;

/// Looks at the loops of one pool every few milliseconds while they run, and sleeps while they do.
/// A loop is handed over only when it has work waiting, and only when its thread blocks or computes: one
/// that merely lost its core would go on by itself.
class Watcher {
 public:
  static constexpr MonotonicTime kPatience = 5'000'000;
  /// Patience for the 50 ms after a loop was handed over: blocked handlers come in groups.
  static constexpr MonotonicTime kPatienceAfterTake = 1'000'000;
  static constexpr MonotonicTime kAlertTime = 50'000'000;

  explicit Watcher(LoopPool& pool) : pool_(pool) {}
  ~Watcher() { stop(); }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  /// Starts the thread that looks. Without it, whoever made the pool calls `look`.
  void start();
  void stop();
  /// A loop has begun to run. Costs one load unless the watcher sleeps.
  void noteActivity() noexcept {
    if (sleeps_.load(std::memory_order_seq_cst)) wake();
  }
  /// One round over all loops at `now`. Returns how many were handed over.
  /// Queue:   the watcher's thread, or a test that started none.
  int look(MonotonicTime now);

 private:
  // What was last seen of a loop.
  struct Sighting {
    uint64_t word = 0;
    MonotonicTime since = 0;
    int64_t cpu_time = 0;
  };

  void run();
  void wake() noexcept;
  bool lookAt(EventLoop& loop, Sighting& sighting, MonotonicTime now);
  bool allIdle() const;

  LoopPool& pool_;
  std::thread thread_;
  std::atomic<bool> sleeps_{false};
  std::mutex mutex_;
  std::condition_variable condition_;
  // Guarded by mutex_.
  bool woken_ = false;
  bool stop_ = false;
  // Touched only by who looks.
  std::vector<Sighting> sightings_;
  MonotonicTime alert_until_ = 0;
};

}  // namespace vel
