// Deadline: one embedded time-out of an object that lives on a serial queue.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include "platform/clock.h"

class VELSerialQueue;

namespace vel {

class DeadlineWheel;

/// A time-out that is set often and almost never fires. Arming it later than before is one atomic
/// store, and so is disarming it: the wheel notices when it next comes by.
/// Owner:   embedded in the object that it times, which derives from it or holds it, calls `remove` in
///          its destructor and holds the queue.
/// Queue:   `arm`, `armAt`, `disarm` and `remove` on the object's queue.
class Deadline {
 public:
  Deadline() noexcept = default;
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

  /// Fires once `delay` from now, on `queue`: never earlier. Replaces what was armed.
  void arm(VELSerialQueue& queue, std::chrono::nanoseconds delay);
  /// The same at a time of the coarse clock.
  void armAt(VELSerialQueue& queue, MonotonicTime due);
  void disarm() noexcept { due_.store(kNever, std::memory_order_relaxed); }
  bool isArmed() const noexcept { return due_.load(std::memory_order_relaxed) != kNever; }
  /// Disarms and leaves the wheel, before the object goes away or moves to another queue.
  void remove() noexcept;

 protected:
  virtual ~Deadline() = default;

  /// The time has come; the deadline is disarmed. Queue: the object's.
  virtual void deadlineDidFire() = 0;
  /// Keeps the object alive while a firing is on its way; none when it is going away already.
  /// Queue:   any; must not take a lock that is held around `arm` or `remove`.
  virtual std::shared_ptr<void> deadlineOwner() = 0;
  /// The loop has stopped. Queue: any.
  virtual void deadlineWillNeverFire() noexcept {}

 private:
  friend class DeadlineWheel;
  friend struct DeadlineFiring;

  std::atomic<MonotonicTime> due_{kNever};
  std::atomic<VELSerialQueue*> queue_{nullptr};
  // When the wheel looks at this entry again; never when it is not in a wheel. Written under its lock.
  std::atomic<MonotonicTime> placed_{kNever};
  std::atomic<DeadlineWheel*> wheel_{nullptr};
  // Guarded by the wheel's lock.
  Deadline* previous_ = nullptr;
  Deadline* following_ = nullptr;
};

}  // namespace vel
