// QueueRunner: how a serial queue is taken, run and given free. The protocol below the public class.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "corvane/serial_queue.h"
#include "platform/queue_node.h"

namespace vel {

class EventLoop;
class EventSource;
class Workspace;

/// One thread, as queues know it.
struct ThreadRecord {
  ~ThreadRecord();
  /// The calling thread's.
  static ThreadRecord& current() noexcept { return current_ != nullptr ? *current_ : make(); }
  /// The same; none before its first use.
  static ThreadRecord* currentIfAny() noexcept { return current_; }
  Workspace& workspace() { return workspace_ ? *workspace_ : makeWorkspace(); }

  /// The innermost queue that this thread runs.
  QueueFrame* frame = nullptr;
  /// No signal reaches this thread, SIGPIPE among them.
  bool blocks_signals = false;
  /// The queue that this thread waits for in `sync`. Guarded by the lock of the slow path.
  VELSerialQueue* waiting_for = nullptr;

 private:
  static ThreadRecord& make() noexcept;
  Workspace& makeWorkspace();

  static inline constinit thread_local ThreadRecord* current_ = nullptr;
  std::unique_ptr<Workspace> workspace_;
};

/// A thread's hold on a queue, from taking it until giving it free.
struct QueueFrame {
  QueueFrame(VELSerialQueue& held_queue, ThreadRecord& running_thread, bool is_driven) noexcept;
  ~QueueFrame();
  QueueFrame(const QueueFrame&) = delete;
  QueueFrame& operator=(const QueueFrame&) = delete;

  /// The calling thread's hold on `queue`, if it has one.
  static QueueFrame* heldByThisThread(const VELSerialQueue* queue) noexcept {
    const ThreadRecord* thread = ThreadRecord::currentIfAny();
    QueueFrame* frame = thread != nullptr ? thread->frame : nullptr;
    while (frame != nullptr && frame->queue != queue) frame = frame->outer;
    return frame;
  }

  /// Asks for `end.turnWillEnd` before the queue is given free.
  void listTurnEnd(TurnEnd& end) noexcept;
  /// Keeps `object` until the queue has been given free and no event of the present batch can name it.
  void bury(std::shared_ptr<void> object) { graves.push_back(std::move(object)); }

  VELSerialQueue* const queue;
  ThreadRecord& thread;
  QueueFrame* const outer;
  /// Whether a loop runs the queue: only then may events be handled and buffers of the thread be used.
  const bool driven;
  TurnEnd* turn_ends = nullptr;
  std::vector<std::shared_ptr<void>> graves;
};

/// The queue's word is 0 when it is free, else the newest node of its inbox and two bits:
/// `kListed`: the queue stands in its loop's list of queues to run;
/// `kRun`: somebody holds it.
///
/// | event                   | free          | listed         | held            |
/// |-------------------------|---------------|----------------|-----------------|
/// | post                    | list it       | join           | join            |
/// | event, loop's thread    | hold, run     | join           | join            |
/// | loop comes to the queue | -             | hold, run      | leave           |
/// | `sync`                  | hold          | hold           | wait in line    |
/// | given free, work left   | -             | -              | list it         |
/// | given free by a foreign | -             | -              | first waiter or list it |
class QueueRunner {
 public:
  static constexpr uintptr_t kListed = 1;
  static constexpr uintptr_t kRun = 2;
  static constexpr uintptr_t kBits = kListed | kRun;
  /// Nodes run in one go; what is left is listed again.
  static constexpr int kNodesPerRun = 64;

  /// A queue of the library's own with a label that lives as long as the program.
  static std::shared_ptr<VELSerialQueue> makeQueue(const char* static_label, EventLoop& loop);
  static EventLoop& loopOf(const VELSerialQueue& queue) noexcept { return *queue.loop_; }
  static void setLastResort(VELSerialQueue& queue, std::weak_ptr<LastResort> last_resort) {
    queue.last_resort_ = std::move(last_resort);
  }

  static void post(VELSerialQueue& queue, QueueNode& node);
  /// Takes a queue that is free.
  static bool tryHold(VELSerialQueue& queue) noexcept {
    uintptr_t free = 0;
    return queue.word_.compare_exchange_strong(free, kRun, std::memory_order_acquire,
                                               std::memory_order_relaxed);
  }
  /// Takes a queue that its loop has come to; false when somebody else holds it.
  static bool holdListed(VELSerialQueue& queue) noexcept;

  /// Has `source` (or none) handle its readiness on a held queue, runs what was posted, and gives the
  /// queue free.
  /// Queue:   a thread that drives a loop.
  static void runAndFree(VELSerialQueue& queue, EventSource* source, uint32_t readiness,
                         ThreadRecord& thread);

  static void sync(VELSerialQueue& queue, const std::function<void()>& work);
  static bool isHeldByThisThread(const VELSerialQueue& queue) noexcept;
  /// Runs what asked for the end of the turn.
  static void endTurn(QueueFrame& frame) noexcept;
  /// Drops what waits in a listed queue whose loop has stopped; callers of `sync` still get their turn.
  static void dropListed(VELSerialQueue& queue) noexcept;
  /// Drops what was never run. Queue: `queue` is going away.
  static void dropWork(VELSerialQueue& queue) noexcept;

 private:
  struct Waiter;
  static void takeInbox(VELSerialQueue& queue) noexcept;
  static QueueNode* popFirst(VELSerialQueue& queue) noexcept;
  static void runNode(QueueNode& node, QueueFrame& frame) noexcept;
  static void handleReadiness(EventSource& source, uint32_t readiness, QueueFrame& frame) noexcept;
  static void workDidThrow(VELSerialQueue& queue, const std::exception_ptr& exception) noexcept;
  // Runs up to `budget` nodes; false when the queue was handed to a waiter.
  static bool runNodes(VELSerialQueue& queue, QueueFrame& frame, int budget) noexcept;
  static bool tryFree(VELSerialQueue& queue) noexcept;
  static void freeAndList(VELSerialQueue& queue);
  static void runPostedWork(VELSerialQueue& queue, QueueFrame& frame) noexcept;
  static void freeByForeign(VELSerialQueue& queue);
  static void waitInLine(VELSerialQueue& queue, Waiter& waiter, ThreadRecord& thread);
};

}  // namespace vel
