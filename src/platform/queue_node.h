// What can wait in a serial queue: posted work, a ready event source, a deadline, a caller of `sync`.
#pragma once

#include <cstdint>

namespace vel {

struct QueueFrame;

/// An entry of a queue's inbox. Sources and deadlines embed theirs, so that an event costs no memory.
struct QueueNode {
  enum class Kind : uint8_t {
    kWork,    // runs on whoever holds the queue; heap-allocated, deletes itself
    kEvent,   // runs on a thread that drives a loop
    kWaiter,  // is handed the queue
  };

  explicit QueueNode(Kind node_kind) noexcept : kind(node_kind) {}
  QueueNode(const QueueNode&) = delete;
  QueueNode& operator=(const QueueNode&) = delete;

  /// Runs on the queue. May delete the node.
  virtual void runNode(QueueFrame& frame) = 0;
  /// The loop stopped before the node could run. May delete the node.
  virtual void dropNode() noexcept {}

  QueueNode* next = nullptr;
  const Kind kind;

 protected:
  virtual ~QueueNode() = default;
};

/// Something that has to be seen to before a queue is given free: the flush of a socket, for instance.
struct TurnEnd {
  TurnEnd() noexcept = default;
  TurnEnd(const TurnEnd&) = delete;
  TurnEnd& operator=(const TurnEnd&) = delete;

  /// Runs on the queue, once for each time that it was asked for.
  virtual void turnWillEnd(QueueFrame& frame) = 0;

  bool isListed() const noexcept { return next_turn_end != this; }

  /// The node itself while it is in no list.
  TurnEnd* next_turn_end = this;

 protected:
  virtual ~TurnEnd() = default;
};

}  // namespace vel
