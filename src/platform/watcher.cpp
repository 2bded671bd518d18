#include "platform/watcher.h"

#include <chrono>

#include "platform/event_loop.h"
#include "platform/loop_pool.h"

namespace vel {
namespace {

// How long the loops must have been idle before the watcher sleeps: a loop that waits a moment between
// two requests should not have to wake it each time.
constexpr MonotonicTime kRestAfter = 200'000'000;

}  // namespace

void Watcher::start() {
  thread_ = std::thread([this] { run(); });
}

void Watcher::stop() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
    condition_.notify_one();
  }
  thread_.join();
}

void Watcher::wake() noexcept {
  sleeps_.store(false, std::memory_order_relaxed);
  std::lock_guard lock(mutex_);
  woken_ = true;
  condition_.notify_one();
}

bool Watcher::allIdle() const {
  for (const auto& loop : pool_.loops()) {
    if (EventLoop::stateOf(loop->word()) != LoopState::kIdle) return false;
  }
  return true;
}

void Watcher::run() {
  blockAllSignals();
  MonotonicTime idle_since = preciseNow();
  std::unique_lock lock(mutex_);
  while (!stop_) {
    const MonotonicTime now = preciseNow();
    const MonotonicTime patience = now < alert_until_ ? kPatienceAfterTake : kPatience;
    condition_.wait_for(lock, std::chrono::nanoseconds(patience), [this] { return stop_; });
    lock.unlock();
    look(preciseNow());
    if (!allIdle()) idle_since = preciseNow();
    const bool rests = preciseNow() - idle_since > kRestAfter;
    // Says that it sleeps and then looks again; a loop says that it runs and then looks here.
    if (rests) sleeps_.store(true, std::memory_order_seq_cst);
    const bool sleeps = rests && allIdle();
    lock.lock();
    if (sleeps) condition_.wait(lock, [this] { return woken_ || stop_; });
    woken_ = false;
    if (rests) {
      sleeps_.store(false, std::memory_order_relaxed);
      idle_since = preciseNow();
    }
  }
}

int Watcher::look(MonotonicTime now) {
  sightings_.resize(pool_.loops().size());
  int taken = 0;
  for (size_t i = 0; i < sightings_.size(); ++i) {
    if (lookAt(*pool_.loops()[i], sightings_[i], now)) ++taken;
  }
  if (taken > 0) alert_until_ = now + kAlertTime;
  return taken;
}

bool Watcher::lookAt(EventLoop& loop, Sighting& sighting, MonotonicTime now) {
  const uint64_t word = loop.word();
  const PoolThread* thread = loop.driver();
  if (EventLoop::stateOf(word) != LoopState::kIn || thread == nullptr) {
    sighting.word = word;
    return false;
  }
  if (word != sighting.word) {
    sighting = {word, now, thread->cpuTime()};
    return false;
  }
  const MonotonicTime patience = now < alert_until_ ? kPatienceAfterTake : kPatience;
  const MonotonicTime inside_for = now - sighting.since;
  if (inside_for < patience || !loop.hasWorkWaiting()) return false;
  const bool computes = thread->cpuTime() - sighting.cpu_time >= inside_for / 2;
  if (!computes && !thread->isAsleep()) return false;
  return pool_.handOver(loop, word);
}

}  // namespace vel
