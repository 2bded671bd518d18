// VELSerialQueue: the one concurrency primitive. Work of a queue runs one piece after the other.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>

#include "corvane/event_loops.h"
#include "corvane/export.h"

namespace vel {
class EventLoop;
class QueueRunner;
struct QueueExtras;
struct QueueNode;
struct ThreadRecord;

/// Told when work of a queue has thrown. Implemented by whoever the queue belongs to.
class LastResort {
 public:
  virtual ~LastResort() = default;
  /// Queue:   the queue whose work threw.
  virtual void workDidThrow(const std::exception_ptr& exception) = 0;
};
}  // namespace vel

/// Runs work in the order in which it was posted, never two pieces at once.
///
/// ```cpp
/// auto queue = std::make_shared<VELSerialQueue>("org.example.counter");
/// int count = 0;
/// queue->async([&count] { ++count; });
/// queue->sync([&count] { ++count; });
/// ```
/// Owner:   always a `shared_ptr`; a queue stays alive while it has work.
/// Errors:  work that throws ends with a log line and the queue's last resort, which closes the
///          connection or session that the queue belongs to; the process goes on.
/// Queue:   every operation may be called on any thread.
class CORVANE_EXPORT VELSerialQueue : public std::enable_shared_from_this<VELSerialQueue> {
 public:
  /// Owner:   holds `loops`; none stands for `VELEventLoops::sharedLoops()`.
  explicit VELSerialQueue(std::string label, std::shared_ptr<VELEventLoops> loops = nullptr);
  VELSerialQueue(const VELSerialQueue&) = delete;
  VELSerialQueue& operator=(const VELSerialQueue&) = delete;
  ~VELSerialQueue();

  /// Posts `work` and returns.
  void async(std::function<void()> work);
  /// Runs `work` on the caller's thread once everything posted before it has run.
  /// Errors:  what `work` throws is thrown here. From the queue itself, or where waiting would close a
  ///          circle of waiting queues, raises an invalid-argument exception instead of waiting forever.
  void sync(const std::function<void()>& work);
  /// Posts `work` once `delay` has gone by: never earlier, and at most some milliseconds later.
  void after(std::chrono::nanoseconds delay, std::function<void()> work);
  /// Whether the calling thread is running this queue's work, in nested `sync` calls too.
  bool isCurrent() const noexcept;

  std::string label() const;

  /// Attaches `value` to the queue under `key`; none removes it.
  void setSpecific(const void* key, void* value);
  /// The value under `key`, or none.
  void* specific(const void* key) const;
  /// The value under `key` of the innermost queue that the calling thread runs and that has one.
  static void* currentSpecific(const void* key);

  /// Lets the host know of every exception that work of any queue ended with; it may end the process.
  /// Default: none, the process goes on.
  /// Queue:   the queue whose work threw, before its last resort is told.
  static void setUncaughtExceptionHandler(std::function<void(const std::exception_ptr&)> handler);

  /// Sets who is told when work throws.
  /// Queue:   this one, or before any work is posted.
  void setLastResort(std::weak_ptr<vel::LastResort> lastResort);

  /// For the library's own use: a label that lives as long as the program.
 protected:
  VELSerialQueue(const char* label, vel::EventLoop* loop);

 private:
  friend class vel::QueueRunner;

  // 0 is free; else the inbox's newest node with the bits of queue_runner.h.
  std::atomic<uintptr_t> word_{0};
  std::atomic<vel::ThreadRecord*> owner_{nullptr};
  // Work taken out of the inbox, oldest first. Touched only by who holds the queue.
  vel::QueueNode* first_ = nullptr;
  vel::QueueNode* last_ = nullptr;
  vel::EventLoop* loop_;
  const char* static_label_ = nullptr;
  mutable std::atomic<vel::QueueExtras*> extras_{nullptr};
  // One specific value that is its own key, as the owner of a queue attaches itself; others are extras.
  std::atomic<void*> self_specific_{nullptr};
  std::weak_ptr<vel::LastResort> last_resort_;
};
