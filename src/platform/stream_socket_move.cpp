// StreamSocket, the way to another queue: calls posted to the old one before the change run there, calls made
// meanwhile wait for the new one, so that none overtakes another.
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/connector.h"
#include "platform/queue_runner.h"
#include "platform/stream_socket.h"

namespace vel {

void StreamSocket::setDelegate(std::weak_ptr<VELSocketDelegate> delegate,
                               std::shared_ptr<VELSerialQueue> delegateQueue) {
  if (!is_used_.load(std::memory_order_acquire)) {
    std::lock_guard lock(queueMutex());
    delegate_.swap(delegate);
    queue_.swap(delegateQueue);
    setSourceQueue(queue_.get());
    return;
  }
  if (redirectMove(delegate, delegateQueue)) return;
  if (move_state_.load(std::memory_order_acquire) == MoveState::kUnderWay) {
    return postCall([=](StreamSocket& socket) { socket.setDelegate(delegate, delegateQueue); });
  }
  if (holdingFrame() == nullptr) {
    const std::shared_ptr<VELSerialQueue> present = this->delegateQueue();
    // Another change of queue may have come in between: then all is looked at again.
    if (present->isCurrent()) return setDelegate(std::move(delegate), std::move(delegateQueue));
    return present->sync([&] { setDelegate(delegate, delegateQueue); });
  }
  if (delegateQueue == queue_ && !move_) {
    delegate_.swap(delegate);
    delegate_changed_ = true;
    return;
  }
  {
    std::lock_guard lock(queueMutex());
    if (!move_) move_ = std::make_unique<Move>();
    move_->delegate = std::move(delegate);
    move_->queue = std::move(delegateQueue);
    move_state_.store(MoveState::kAsked, std::memory_order_release);
  }
  delegate_.reset();
  queue_->async([self = shared_from_this()] {
    self->move_state_.store(MoveState::kLeaving, std::memory_order_release);
    if (QueueFrame* frame = QueueFrame::heldByThisThread(self->sourceQueue())) {
      self->seeToTurnEnd(*frame);
    }
  });
}

// Gives a change of queue that has not begun yet another aim; false when there is none.
bool StreamSocket::redirectMove(std::weak_ptr<VELSocketDelegate>& delegate,
                                std::shared_ptr<VELSerialQueue>& queue) {
  std::lock_guard lock(queueMutex());
  const MoveState state = move_state_.load(std::memory_order_relaxed);
  if (state != MoveState::kAsked && state != MoveState::kLeaving) return false;
  move_->delegate.swap(delegate);
  move_->queue.swap(queue);
  return true;
}

std::shared_ptr<VELSerialQueue> StreamSocket::delegateQueue() const {
  std::lock_guard lock(queueMutex());
  return move_ ? move_->queue : queue_;
}

// Takes the socket to its new queue, as the last thing of a turn on the old one.
void StreamSocket::finishMove(QueueFrame& frame) {
  std::shared_ptr<VELSerialQueue> target;
  {
    std::lock_guard lock(queueMutex());
    target = move_->queue;
    move_state_.store(MoveState::kUnderWay, std::memory_order_release);
  }
  flush();
  Deadline::remove();
  EventLoop& from = QueueRunner::loopOf(*queue_);
  EventLoop& to = QueueRunner::loopOf(*target);
  const std::shared_ptr<StreamSocket> keep = shared_from_this();
  // An event of the old loop's present batch may still name the socket.
  frame.bury(keep);
  if (connector() != nullptr) connector()->queueWillChange(from, to);
  if (&from != &to && is_registered_) {
    stopWatching(from);
    if (!watch(to)) {
      is_registered_ = false;
      end(VELError(VELPOSIXErrorDomain, errno, std::strerror(errno)));
    }
  }
  {
    std::lock_guard lock(queueMutex());
    delegate_.swap(move_->delegate);
    frame.bury(std::move(queue_));
    queue_ = target;
    setSourceQueue(target.get());
  }
  // From here on the socket belongs to the new queue.
  target->async([keep] { keep->arrive(); });
}

void StreamSocket::arrive() {
  QueueFrame* frame = QueueFrame::heldByThisThread(sourceQueue());
  // An event may have come first, and the socket may have gone on since.
  if (frame != nullptr) seeToTurnEnd(*frame);
}

// Makes the calls that came from other threads while the socket moved, the first thing on its new queue.
void StreamSocket::runMovedCalls() {
  move_state_.store(MoveState::kArriving, std::memory_order_release);
  if (connector() != nullptr) connector()->queueDidChange();
  std::vector<std::function<void(StreamSocket&)>> calls;
  for (size_t index = 0; move_state_.load(std::memory_order_relaxed) == MoveState::kArriving;
       ++index) {
    if (index == calls.size()) {
      std::lock_guard lock(queueMutex());
      calls = std::exchange(move_->calls, {});
      index = 0;
      if (calls.empty()) {
        move_.reset();
        move_state_.store(MoveState::kNone, std::memory_order_release);
        return;
      }
    }
    calls[index](*this);
    if (move_state_.load(std::memory_order_relaxed) != MoveState::kArriving) {
      // The call asked for the index move: the rest goes along.
      std::lock_guard lock(queueMutex());
      const auto rest = calls.begin() + static_cast<ptrdiff_t>(index) + 1;
      move_->calls.insert(move_->calls.begin(), std::move_iterator(rest),
                          std::move_iterator(calls.end()));
    }
  }
}

}  // namespace vel
