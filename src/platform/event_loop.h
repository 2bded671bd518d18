// EventLoop: one reactor over epoll. Readiness of its sources, its deadlines and the work posted to its
// queues run on whichever thread drives it; another can take over while a handler blocks.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "corvane/serial_queue.h"
#include "platform/deadline_wheel.h"
#include "platform/queue_node.h"
#include "platform/queue_runner.h"

namespace vel {

class LoopPool;
class PoolThread;

/// What a source is told; several may come together.
enum Readiness : uint32_t {
  kReadable = 1,
  kWritable = 2,
  /// The peer sends no more.
  kPeerFinished = 4,
  /// Both directions are over, or the source has failed.
  kHungUp = 8,
  /// The source asked itself to be seen to.
  kServe = 16,
  // Not for sources: the source has retired.
  kRetired = 1U << 31,
};

/// A file descriptor whose readiness arrives on a serial queue, edge-triggered: once for each change.
/// Owner:   whoever registers it keeps it alive until it has been deregistered and buried.
class EventSource : public QueueNode {
 public:
  EventSource() noexcept : QueueNode(Kind::kEvent) {}

  /// Runs on the queue, on a thread that drives its loop.
  virtual void handleReadiness(uint32_t readiness, QueueFrame& frame) = 0;

  /// Has `readiness` handled on the queue, soon. Comes to nothing once the source has retired.
  /// Queue:   any.
  void notify(uint32_t readiness);
  /// Ends notifications, on the queue, after the descriptor has been removed from its loop. True when the
  /// source may be buried at once; else one is on its way still and `didRetire` comes in its place.
  [[nodiscard]] bool retire() noexcept;
  /// Queue:   the source's, or one that it had before.
  virtual void didRetire(QueueFrame& frame) = 0;
  VELSerialQueue* sourceQueue() const noexcept {
    return source_queue_.load(std::memory_order_acquire);
  }
  void setSourceQueue(VELSerialQueue* queue) noexcept {
    source_queue_.store(queue, std::memory_order_release);
  }

 protected:
  virtual ~EventSource() = default;

 private:
  friend class EventLoop;
  void runNode(QueueFrame& frame) final;

  // What came while the queue was busy; not zero while the node stands in the queue's line.
  std::atomic<uint32_t> pending_{0};
  std::atomic<VELSerialQueue*> source_queue_{nullptr};
};

/// The loop's word is beat × 4 + one of these.
enum class LoopState : uint64_t {
  kOut,    // the driving thread may touch the loop
  kIn,     // it runs a handler and touches nothing but that handler's queue
  kIdle,   // it waits in the kernel
  kTaken,  // between two driving threads
};

class EventLoop {
 public:
  explicit EventLoop(LoopPool& pool);
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  LoopPool& pool() const noexcept { return pool_; }
  DeadlineWheel& wheel() noexcept { return wheel_; }

  /// Begins to watch `fd` for `source`. Errors: false, with errno set.
  bool add(int fd, EventSource& source) noexcept;
  /// Ends it; must come before the descriptor is closed.
  void remove(int fd) noexcept;

  /// Puts a queue on the list of those to run.
  void list(std::shared_ptr<VELSerialQueue> queue);
  /// Frees `objects` once no event of the present batch can name them.
  void bury(std::vector<std::shared_ptr<void>> objects);
  /// Lets a waiting loop look at its deadlines and graves.
  void wakeIfAsleep() noexcept;

  /// Runs the loop until it is taken by another thread or stopped.
  void drive(ThreadRecord& thread);
  /// Runs the loop until nothing more is ready, or `turns` have gone by; true when nothing is.
  /// Queue:   a thread of the caller's, for a pool without threads.
  bool driveUntilIdle(ThreadRecord& thread, int turns);
  /// The same, but waits for something to become ready first, `most` at the longest.
  void driveOnce(ThreadRecord& thread, std::chrono::milliseconds most);
  void requestStop() noexcept;
  /// Nobody will drive the loop any more. Queue: any.
  bool hasStopped() const noexcept { return stop_.load(std::memory_order_relaxed); }
  /// Drops what is still posted. Queue: nobody drives the loop any more.
  void dropWork() noexcept;

  // For the watcher.
  uint64_t word() const noexcept { return word_.load(std::memory_order_seq_cst); }
  static LoopState stateOf(uint64_t word) noexcept { return static_cast<LoopState>(word & 3); }
  /// Takes the loop away from a thread that was seen inside the handler of `word`.
  bool take(uint64_t word) noexcept;
  /// Whether anything waits to be run besides the handler at hand.
  bool hasWorkWaiting() const noexcept;
  /// The thread that drives the loop; it stays while the pool lives.
  void setDriver(const PoolThread* thread) noexcept {
    driver_.store(thread, std::memory_order_release);
  }
  const PoolThread* driver() const noexcept { return driver_.load(std::memory_order_acquire); }

 private:
  struct Listing;
  struct Batch;

  template <class Work>
  bool inside(Work&& work);
  bool runTurn(ThreadRecord& thread);
  bool dispatchBatch(ThreadRecord& thread);
  bool dispatchEvent(EventSource& source, uint32_t readiness, ThreadRecord& thread);
  bool runListed(ThreadRecord& thread);
  void takePosted() noexcept;
  void dropPosted() noexcept;
  std::vector<std::shared_ptr<void>> takeGraves() noexcept;
  void wait(int most_milliseconds);
  int waitingTime() const noexcept;
  void wake() noexcept;

  LoopPool& pool_;
  int epoll_ = -1;
  int wake_ = -1;
  DeadlineWheel wheel_;
  std::atomic<uint64_t> word_;
  std::atomic<const PoolThread*> driver_{nullptr};
  std::atomic<bool> stop_{false};
  // Nobody will run what is posted any more.
  std::atomic<bool> is_dropped_{false};
  // Newest listing first, or the marker for "waits in the kernel".
  std::atomic<Listing*> posted_{nullptr};

  // Touched only in kOut; atomic where the watcher looks.
  uint64_t beat_ = 0;
  std::unique_ptr<Batch> batch_;
  std::atomic<int> batch_index_{0};
  std::atomic<int> batch_count_{0};
  std::atomic<Listing*> listed_first_{nullptr};
  Listing* listed_last_ = nullptr;

  std::atomic<bool> has_graves_{false};
  std::mutex graves_mutex_;
  std::vector<std::shared_ptr<void>> graves_;
};

}  // namespace vel
