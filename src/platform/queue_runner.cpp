#include "platform/queue_runner.h"

#include <condition_variable>
#include <mutex>

#include "corvane/error.h"
#include "platform/event_loop.h"
#include "platform/log.h"
#include "platform/queue_extras.h"
#include "platform/workspace.h"

namespace vel {
namespace {

// Guards who waits for which queue. Taken only by threads that have to wait.
std::mutex& waitingMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}

QueueNode* nodeOf(uintptr_t word) noexcept {
  return reinterpret_cast<QueueNode*>(word & ~QueueRunner::kBits);
}

}  // namespace

// Who looks for a circle may have found this record in a queue that the thread held a moment ago.
ThreadRecord::~ThreadRecord() {
  std::lock_guard lock(waitingMutex());
  current_ = nullptr;
}

ThreadRecord& ThreadRecord::make() noexcept {
  thread_local ThreadRecord record;
  current_ = &record;
  return record;
}

Workspace& ThreadRecord::makeWorkspace() {
  workspace_ = std::make_unique<Workspace>();
  return *workspace_;
}

QueueFrame::QueueFrame(VELSerialQueue& held_queue, ThreadRecord& running_thread,
                       bool is_driven) noexcept
    : queue(&held_queue), thread(running_thread), outer(running_thread.frame), driven(is_driven) {
  thread.frame = this;
}

QueueFrame::~QueueFrame() { thread.frame = outer; }

void QueueFrame::listTurnEnd(TurnEnd& end) noexcept {
  if (end.isListed()) return;
  end.next_turn_end = turn_ends;
  turn_ends = &end;
}

// A caller of `sync` in the queue's line. Lives on that caller's stack.
struct QueueRunner::Waiter final : QueueNode {
  Waiter() noexcept : QueueNode(Kind::kWaiter) {}
  void runNode(QueueFrame&) override {}

  void grant() {
    // Notified under the lock: the waiter may be gone as soon as it is let go.
    std::lock_guard lock(mutex);
    granted = true;
    condition.notify_one();
  }
  void wait() {
    std::unique_lock lock(mutex);
    condition.wait(lock, [this] { return granted; });
  }

  std::mutex mutex;
  std::condition_variable condition;
  bool granted = false;
};

void QueueRunner::post(VELSerialQueue& queue, QueueNode& node) {
  uintptr_t word = queue.word_.load(std::memory_order_relaxed);
  bool must_list = false;
  // The work may hold the last other reference and be over before this returns.
  std::shared_ptr<VELSerialQueue> strong;
  do {
    node.next = nodeOf(word);
    must_list = (word & kBits) == 0;
    if (must_list && !strong) strong = queue.shared_from_this();
    const uintptr_t bits = must_list ? kListed : (word & kBits);
    const uintptr_t posted = reinterpret_cast<uintptr_t>(&node) | bits;
    if (queue.word_.compare_exchange_weak(word, posted, std::memory_order_release,
                                          std::memory_order_relaxed)) {
      break;
    }
  } while (true);
  if (must_list) strong->loop_->list(strong);
}

bool QueueRunner::holdListed(VELSerialQueue& queue) noexcept {
  uintptr_t word = queue.word_.load(std::memory_order_relaxed);
  while (true) {
    const bool held = (word & kRun) != 0;
    const uintptr_t next = held ? word & ~kListed : (word & ~kListed) | kRun;
    if (queue.word_.compare_exchange_weak(word, next, std::memory_order_acquire,
                                          std::memory_order_relaxed)) {
      return !held;
    }
  }
}

void QueueRunner::takeInbox(VELSerialQueue& queue) noexcept {
  QueueNode* newest = nodeOf(queue.word_.fetch_and(kBits, std::memory_order_acquire));
  if (newest == nullptr) return;
  QueueNode* oldest = nullptr;
  for (QueueNode* node = newest; node != nullptr;) {
    QueueNode* next = node->next;
    node->next = oldest;
    oldest = node;
    node = next;
  }
  (queue.first_ == nullptr ? queue.first_ : queue.last_->next) = oldest;
  queue.last_ = newest;
}

QueueNode* QueueRunner::popFirst(VELSerialQueue& queue) noexcept {
  QueueNode* node = queue.first_;
  if (node == nullptr) return nullptr;
  queue.first_ = node->next;
  if (queue.first_ == nullptr) queue.last_ = nullptr;
  node->next = nullptr;
  return node;
}

void QueueRunner::workDidThrow(VELSerialQueue& queue,
                               const std::exception_ptr& exception) noexcept {
  try {
    reportUncaughtException(exception);
    if (std::shared_ptr<LastResort> last_resort = queue.last_resort_.lock()) {
      last_resort->workDidThrow(exception);
    }
  } catch (...) {
    logLine("The handler of an uncaught exception threw itself.");
  }
}

void QueueRunner::runNode(QueueNode& node, QueueFrame& frame) noexcept {
  try {
    node.runNode(frame);
  } catch (...) {
    workDidThrow(*frame.queue, std::current_exception());
  }
}

void QueueRunner::endTurn(QueueFrame& frame) noexcept {
  while (TurnEnd* end = frame.turn_ends) {
    frame.turn_ends = end->next_turn_end;
    end->next_turn_end = end;
    try {
      end->turnWillEnd(frame);
    } catch (...) {
      workDidThrow(*frame.queue, std::current_exception());
    }
  }
}

bool QueueRunner::runNodes(VELSerialQueue& queue, QueueFrame& frame, int budget) noexcept {
  endTurn(frame);
  for (; budget > 0; --budget) {
    if (queue.first_ == nullptr) takeInbox(queue);
    QueueNode* node = popFirst(queue);
    if (node == nullptr) return true;
    if (node->kind == QueueNode::Kind::kWaiter) {
      endTurn(frame);
      queue.owner_.store(nullptr, std::memory_order_relaxed);
      static_cast<Waiter*>(node)->grant();
      return false;
    }
    runNode(*node, frame);
    // One flush for all the work at hand, as long as it comes from one burst.
    if (queue.first_ == nullptr) endTurn(frame);
  }
  endTurn(frame);
  return true;
}

bool QueueRunner::tryFree(VELSerialQueue& queue) noexcept {
  if (queue.first_ != nullptr) return false;
  uintptr_t word = kRun;
  if (queue.word_.compare_exchange_strong(word, 0, std::memory_order_release,
                                          std::memory_order_relaxed)) {
    return true;
  }
  // The list still holds a queue that a caller of `sync` emptied: the loop will find nothing to do.
  return word == kBits && queue.word_.compare_exchange_strong(
                              word, kListed, std::memory_order_release, std::memory_order_relaxed);
}

void QueueRunner::freeAndList(VELSerialQueue& queue) {
  uintptr_t word = queue.word_.load(std::memory_order_relaxed);
  std::shared_ptr<VELSerialQueue> strong = queue.shared_from_this();
  while (!queue.word_.compare_exchange_weak(word, (word & ~kRun) | kListed,
                                            std::memory_order_release, std::memory_order_relaxed)) {
  }
  if ((word & kListed) == 0) strong->loop_->list(strong);
}

void QueueRunner::handleReadiness(EventSource& source, uint32_t readiness,
                                  QueueFrame& frame) noexcept {
  if (source.sourceQueue() != frame.queue) {
    source.notify(readiness);
    return;
  }
  try {
    source.handleReadiness(readiness, frame);
  } catch (...) {
    workDidThrow(*frame.queue, std::current_exception());
  }
}

void QueueRunner::runAndFree(VELSerialQueue& queue, EventSource* source, uint32_t readiness,
                             ThreadRecord& thread) {
  queue.owner_.store(&thread, std::memory_order_relaxed);
  EventLoop& loop = *queue.loop_;
  QueueFrame frame(queue, thread, true);
  if (source != nullptr) handleReadiness(*source, readiness, frame);
  if (runNodes(queue, frame, kNodesPerRun)) {
    queue.owner_.store(nullptr, std::memory_order_relaxed);
    if (!tryFree(queue)) freeAndList(queue);
  }
  if (!frame.graves.empty()) loop.bury(std::move(frame.graves));
}

bool QueueRunner::isHeldByThisThread(const VELSerialQueue& queue) noexcept {
  const ThreadRecord* thread = ThreadRecord::currentIfAny();
  return thread != nullptr && queue.owner_.load(std::memory_order_relaxed) == thread;
}

// Runs the work posted before a `sync`; readiness and time-outs stay for the loop, in their order.
void QueueRunner::runPostedWork(VELSerialQueue& queue, QueueFrame& frame) noexcept {
  QueueNode* kept_first = nullptr;
  QueueNode* kept_last = nullptr;
  while (QueueNode* node = popFirst(queue)) {
    if (node->kind == QueueNode::Kind::kWork) {
      runNode(*node, frame);
    } else {
      (kept_first == nullptr ? kept_first : kept_last->next) = node;
      kept_last = node;
    }
  }
  queue.first_ = kept_first;
  queue.last_ = kept_last;
}

void QueueRunner::freeByForeign(VELSerialQueue& queue) {
  queue.owner_.store(nullptr, std::memory_order_relaxed);
  while (!tryFree(queue)) {
    takeInbox(queue);
    if (queue.first_ == nullptr) continue;
    if (queue.first_->kind == QueueNode::Kind::kWaiter) {
      static_cast<Waiter*>(popFirst(queue))->grant();
    } else {
      freeAndList(queue);
    }
    return;
  }
}

void QueueRunner::waitInLine(VELSerialQueue& queue, Waiter& waiter, ThreadRecord& thread) {
  {
    std::lock_guard lock(waitingMutex());
    // A thread that waits wrote what it holds before it took this lock, so a circle is seen by the
    // last one to close it.
    for (VELSerialQueue* next = &queue; next != nullptr;) {
      ThreadRecord* owner = next->owner_.load(std::memory_order_relaxed);
      if (owner == nullptr) break;
      if (owner == &thread) {
        throw VELException(VELInvalidArgumentException,
                           "sync on the queue \"" + queue.label() +
                               "\" would wait for itself: queues wait for each other in a circle.");
      }
      next = owner->waiting_for;
    }
    thread.waiting_for = &queue;
  }
  post(queue, waiter);
  waiter.wait();
  std::lock_guard lock(waitingMutex());
  thread.waiting_for = nullptr;
}

void QueueRunner::sync(VELSerialQueue& queue, const std::function<void()>& work) {
  ThreadRecord& thread = ThreadRecord::current();
  if (queue.owner_.load(std::memory_order_relaxed) == &thread) {
    throw VELException(VELInvalidArgumentException,
                       "sync was called on the queue \"" + queue.label() + "\" from that queue.");
  }
  const std::shared_ptr<VELSerialQueue> keep = queue.shared_from_this();
  uintptr_t word = queue.word_.load(std::memory_order_relaxed);
  bool held = false;
  while ((word & kRun) == 0 && !held) {
    held = queue.word_.compare_exchange_weak(word, word | kRun, std::memory_order_acquire,
                                             std::memory_order_relaxed);
  }
  if (!held) {
    Waiter waiter;
    waitInLine(queue, waiter, thread);
  }
  queue.owner_.store(&thread, std::memory_order_relaxed);
  std::exception_ptr exception;
  {
    QueueFrame frame(queue, thread, false);
    if (held) {
      takeInbox(queue);
      runPostedWork(queue, frame);
    }
    try {
      work();
    } catch (...) {
      exception = std::current_exception();
    }
    endTurn(frame);
    if (!frame.graves.empty()) queue.loop_->bury(std::move(frame.graves));
  }
  freeByForeign(queue);
  if (exception) std::rethrow_exception(exception);
}

void QueueRunner::dropListed(VELSerialQueue& queue) noexcept {
  // Who holds the queue comes here by itself when it gives it free.
  if (!holdListed(queue)) return;
  queue.owner_.store(&ThreadRecord::current(), std::memory_order_relaxed);
  do {
    takeInbox(queue);
    while (QueueNode* node = popFirst(queue)) {
      if (node->kind == QueueNode::Kind::kWaiter) {
        queue.owner_.store(nullptr, std::memory_order_relaxed);
        return static_cast<Waiter*>(node)->grant();
      }
      node->dropNode();
    }
    queue.owner_.store(nullptr, std::memory_order_relaxed);
  } while (!tryFree(queue));
}

void QueueRunner::dropWork(VELSerialQueue& queue) noexcept {
  takeInbox(queue);
  while (QueueNode* node = popFirst(queue)) node->dropNode();
}

}  // namespace vel
