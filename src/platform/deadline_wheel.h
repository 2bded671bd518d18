// DeadlineWheel: the deadlines of one event loop, hashed by time.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "platform/clock.h"
#include "platform/deadline.h"

namespace vel {

class EventLoop;

/// Slots of 32 ms around a circle of 16 s; an entry that is due later stays for further rounds.
/// The lock is a leaf: it is taken to insert, to arm earlier, to remove, and when something is due.
class DeadlineWheel {
 public:
  explicit DeadlineWheel(EventLoop& loop) noexcept : loop_(loop) {}
  DeadlineWheel(const DeadlineWheel&) = delete;
  DeadlineWheel& operator=(const DeadlineWheel&) = delete;

  /// Puts `deadline` where its due time says, if it would be seen too late where it is.
  void place(Deadline& deadline);
  void remove(Deadline& deadline) noexcept;

  /// When `fire` has to be called next; `kNever` when nothing is placed.
  MonotonicTime nextDue() const noexcept { return next_due_.load(std::memory_order_seq_cst); }
  /// Posts a firing to the queue of every deadline that is due at `now`.
  /// Queue:   the thread that drives the loop.
  void fire(MonotonicTime now);
  /// Lets go of every deadline. Queue: none runs any more.
  void drop() noexcept;

 private:
  static constexpr size_t kSlots = 512;
  static constexpr MonotonicTime kSlotWidth = 32'000'000;
  static constexpr size_t slotOf(MonotonicTime time) noexcept {
    return static_cast<size_t>(time / kSlotWidth) % kSlots;
  }

  // All of these expect the lock to be held.
  bool insert(Deadline& deadline, MonotonicTime due) noexcept;
  void link(Deadline& deadline, MonotonicTime place) noexcept;
  void unlink(Deadline& deadline) noexcept;
  // Moves an entry that was looked at before its time; true when it is due at `now` and unlinked.
  bool settle(Deadline& deadline, MonotonicTime now) noexcept;
  MonotonicTime earliestFrom(MonotonicTime now) const noexcept;

  EventLoop& loop_;
  std::atomic<MonotonicTime> next_due_{kNever};
  std::mutex mutex_;
  // Guarded by mutex_.
  std::array<Deadline*, kSlots> slots_{};
  std::array<uint64_t, kSlots / 64> occupied_{};
  size_t count_ = 0;
  MonotonicTime seen_until_ = 0;
  bool is_dropped_ = false;
};

}  // namespace vel
