// LoopPool: the event loops of one VELEventLoops, the threads that drive them and the spare ones.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/watcher.h"

namespace vel {

class EventLoop;
class LoopPool;

/// Keeps the calling thread from running handlers of signals, SIGPIPE among them.
void blockAllSignals() noexcept;

/// One thread of a pool: it drives a loop, or waits for one.
class PoolThread {
 public:
  explicit PoolThread(LoopPool& pool);
  ~PoolThread();
  PoolThread(const PoolThread&) = delete;
  PoolThread& operator=(const PoolThread&) = delete;

  /// Gives the thread a loop to drive; none ends it.
  void assign(EventLoop* loop);
  /// Nanoseconds that the thread has computed.
  int64_t cpuTime() const noexcept;
  /// Whether the thread waits in the kernel.
  bool isAsleep() const noexcept;
  bool isThisThread() const noexcept { return thread_.get_id() == std::this_thread::get_id(); }

 private:
  void run();

  LoopPool& pool_;
  std::mutex mutex_;
  std::condition_variable condition_;
  // Guarded by mutex_.
  bool is_assigned_ = false;
  EventLoop* loop_ = nullptr;

  std::atomic<pid_t> id_{0};
  clockid_t cpu_clock_ = 0;
  std::thread thread_;
};

struct LoopPoolOptions {
  size_t loops = 1;
  /// False leaves `Watcher::look` to whoever made the pool.
  bool watches = true;
  /// False leaves driving the loops to whoever made the pool.
  bool has_threads = true;
  size_t most_threads = 256;
};

class LoopPool : public std::enable_shared_from_this<LoopPool> {
 public:
  explicit LoopPool(const LoopPoolOptions& options);
  ~LoopPool();
  LoopPool(const LoopPool&) = delete;
  LoopPool& operator=(const LoopPool&) = delete;

  /// Starts the threads.
  void start();
  /// Stops and joins them, and drops the work that is left.
  void stop();
  /// The host's object and every queue hold the pool; it stops when the last of them has gone.
  void hold() noexcept { holders_.fetch_add(1, std::memory_order_relaxed); }
  void letGo() noexcept;

  const std::vector<std::unique_ptr<EventLoop>>& loops() const noexcept { return loops_; }
  EventLoop& nextLoop() noexcept {
    return *loops_[next_loop_.fetch_add(1, std::memory_order_relaxed) % loops_.size()];
  }
  Watcher& watcher() noexcept { return watcher_; }

  /// Has a spare thread drive `loop`, whose thread was seen inside the handler of `word`. False when the
  /// handler ended meanwhile or no thread is to be had.
  bool handOver(EventLoop& loop, uint64_t word);

  bool isPoolThread() const;

 private:
  friend class PoolThread;
  // Keeps a thread whose loop was taken for later; false when there are enough.
  bool keepSpare(PoolThread& thread);
  PoolThread* reserveSpare();

  const LoopPoolOptions options_;
  std::vector<std::unique_ptr<EventLoop>> loops_;
  std::atomic<size_t> next_loop_{0};
  std::atomic<size_t> holders_{1};
  // Until the last holder has gone.
  std::shared_ptr<LoopPool> self_;
  Watcher watcher_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::list<std::unique_ptr<PoolThread>> threads_;
  std::vector<PoolThread*> spares_;
  std::vector<PoolThread*> ended_;
  bool stopped_ = false;
  bool cap_was_logged_ = false;
};

}  // namespace vel
