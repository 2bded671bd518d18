#include "platform/deadline_wheel.h"

#include <algorithm>
#include <vector>

#include "corvane/serial_queue.h"
#include "platform/event_loop.h"
#include "platform/queue_runner.h"

namespace vel {

// A deadline on its way from the wheel to its queue. It looks again there: the deadline may have been
// armed anew, disarmed or taken to another queue meanwhile.
struct DeadlineFiring final : QueueNode {
  DeadlineFiring(std::shared_ptr<void> owner_of_deadline, Deadline& due_deadline)
      : QueueNode(Kind::kEvent), owner(std::move(owner_of_deadline)), deadline(due_deadline) {}

  void runNode(QueueFrame& frame) override {
    std::unique_ptr<DeadlineFiring> self(this);
    if (deadline.queue_.load(std::memory_order_relaxed) != frame.queue) return;
    if (deadline.due_.load(std::memory_order_relaxed) > coarseNow()) return;
    deadline.disarm();
    deadline.deadlineDidFire();
  }
  void dropNode() noexcept override {
    const std::unique_ptr<DeadlineFiring> self(this);
    deadline.deadlineWillNeverFire();
  }

  std::shared_ptr<void> owner;
  Deadline& deadline;
};

void Deadline::arm(VELSerialQueue& queue, std::chrono::nanoseconds delay) {
  armAt(queue, timeAfter(coarseNow(), delay));
}

void Deadline::armAt(VELSerialQueue& queue, MonotonicTime due) {
  DeadlineWheel& wheel = QueueRunner::loopOf(queue).wheel();
  DeadlineWheel* present = wheel_.load(std::memory_order_relaxed);
  if (present != nullptr && present != &wheel) remove();
  queue_.store(&queue, std::memory_order_relaxed);
  // Together with the wheel, which writes `placed_` first and reads `due_` then, this makes sure that
  // one of the two sees what the other did.
  due_.store(due, std::memory_order_seq_cst);
  if (placed_.load(std::memory_order_seq_cst) > due) wheel.place(*this);
}

void Deadline::remove() noexcept {
  disarm();
  if (DeadlineWheel* wheel = wheel_.load(std::memory_order_relaxed)) wheel->remove(*this);
}

void DeadlineWheel::place(Deadline& deadline) {
  bool never_fires = false;
  {
    std::lock_guard lock(mutex_);
    never_fires = is_dropped_;
    const MonotonicTime due = deadline.due_.load(std::memory_order_seq_cst);
    if (deadline.placed_.load(std::memory_order_relaxed) <= due) return;
    if (!never_fires && !insert(deadline, due)) return;
  }
  if (never_fires) return deadline.deadlineWillNeverFire();
  loop_.wakeIfAsleep();
}

// True when the loop must wake earlier for it than it would.
bool DeadlineWheel::insert(Deadline& deadline, MonotonicTime due) noexcept {
  if (deadline.placed_.load(std::memory_order_relaxed) != kNever) unlink(deadline);
  deadline.wheel_.store(this, std::memory_order_relaxed);
  // A place before the part that was seen already would be found one round late.
  link(deadline, std::max(due, seen_until_));
  if (due >= next_due_.load(std::memory_order_relaxed)) return false;
  next_due_.store(due, std::memory_order_seq_cst);
  return true;
}

void DeadlineWheel::remove(Deadline& deadline) noexcept {
  std::lock_guard lock(mutex_);
  if (deadline.placed_.load(std::memory_order_relaxed) != kNever) unlink(deadline);
  deadline.wheel_.store(nullptr, std::memory_order_relaxed);
}

void DeadlineWheel::link(Deadline& deadline, MonotonicTime place) noexcept {
  const size_t slot = slotOf(place);
  deadline.previous_ = nullptr;
  deadline.following_ = slots_[slot];
  if (deadline.following_ != nullptr) deadline.following_->previous_ = &deadline;
  slots_[slot] = &deadline;
  occupied_[slot / 64] |= uint64_t{1} << (slot % 64);
  ++count_;
  deadline.placed_.store(place, std::memory_order_seq_cst);
}

void DeadlineWheel::unlink(Deadline& deadline) noexcept {
  const size_t slot = slotOf(deadline.placed_.load(std::memory_order_relaxed));
  if (deadline.following_ != nullptr) deadline.following_->previous_ = deadline.previous_;
  if (deadline.previous_ != nullptr) {
    deadline.previous_->following_ = deadline.following_;
  } else {
    slots_[slot] = deadline.following_;
    if (slots_[slot] == nullptr) occupied_[slot / 64] &= ~(uint64_t{1} << (slot % 64));
  }
  --count_;
  deadline.placed_.store(kNever, std::memory_order_seq_cst);
}

bool DeadlineWheel::settle(Deadline& deadline, MonotonicTime now) noexcept {
  unlink(deadline);
  const MonotonicTime due = deadline.due_.load(std::memory_order_seq_cst);
  if (due <= now) return true;
  // Armed later than where it stood, or disarmed. A disarmed one that is armed again finds itself
  // unplaced and comes back by itself.
  if (due != kNever) link(deadline, due);
  return false;
}

void DeadlineWheel::fire(MonotonicTime now) {
  struct Due {
    std::shared_ptr<void> owner;
    Deadline* deadline;
    VELSerialQueue* queue;
  };
  std::vector<Due> due;
  {
    std::lock_guard lock(mutex_);
    const MonotonicTime from = std::max(seen_until_, now - kSlotWidth * MonotonicTime{kSlots - 1});
    // Entries that move on to the slot at hand go in front of those that are still to be looked at.
    for (MonotonicTime time = from - from % kSlotWidth; time <= now; time += kSlotWidth) {
      Deadline* entry = slots_[slotOf(time)];
      while (entry != nullptr) {
        Deadline* following = entry->following_;
        if (entry->placed_.load(std::memory_order_relaxed) <= now && settle(*entry, now)) {
          if (std::shared_ptr<void> owner = entry->deadlineOwner()) {
            due.push_back({std::move(owner), entry, entry->queue_.load(std::memory_order_relaxed)});
          }
        }
        entry = following;
      }
    }
    seen_until_ = now;
    next_due_.store(earliestFrom(now), std::memory_order_relaxed);
  }
  for (Due& item : due) {
    QueueRunner::post(*item.queue, *new DeadlineFiring(std::move(item.owner), *item.deadline));
  }
}

void DeadlineWheel::drop() noexcept {
  {
    std::lock_guard lock(mutex_);
    is_dropped_ = true;
  }
  while (true) {
    Deadline* entry = nullptr;
    std::shared_ptr<void> owner;
    {
      std::lock_guard lock(mutex_);
      for (size_t slot = 0; slot < kSlots && entry == nullptr; ++slot) entry = slots_[slot];
      if (entry == nullptr) return;
      unlink(*entry);
      owner = entry->deadlineOwner();
    }
    if (owner) entry->deadlineWillNeverFire();
  }
}

MonotonicTime DeadlineWheel::earliestFrom(MonotonicTime now) const noexcept {
  if (count_ == 0) return kNever;
  const MonotonicTime start = now - now % kSlotWidth;
  for (size_t i = 0; i < kSlots; ++i) {
    const MonotonicTime slot_start = start + static_cast<MonotonicTime>(i) * kSlotWidth;
    const size_t slot = slotOf(slot_start);
    if ((occupied_[slot / 64] >> (slot % 64) & 1) == 0) continue;
    MonotonicTime earliest = kNever;
    for (const Deadline* entry = slots_[slot]; entry != nullptr; entry = entry->following_) {
      earliest = std::min(earliest, entry->placed_.load(std::memory_order_relaxed));
    }
    if (earliest < slot_start + kSlotWidth) return earliest;
  }
  return start + static_cast<MonotonicTime>(kSlots) * kSlotWidth;
}

}  // namespace vel
