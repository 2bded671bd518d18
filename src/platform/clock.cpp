#include "platform/clock.h"

#include <algorithm>
#include <atomic>
#include <ctime>

namespace vel {
namespace {

std::atomic<MonotonicTime> g_advance{0};
// Where the clocks were stopped; never while they run.
std::atomic<MonotonicTime> g_stopped_at{kNever};

MonotonicTime read(clockid_t clock) noexcept {
  MonotonicTime now = g_stopped_at.load(std::memory_order_relaxed);
  if (now == kNever) {
    timespec time{};
    clock_gettime(clock, &time);
    now = static_cast<MonotonicTime>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
  }
  return now + g_advance.load(std::memory_order_relaxed);
}

}  // namespace

MonotonicTime coarseNow() noexcept {
#ifdef CLOCK_MONOTONIC_COARSE
  return read(CLOCK_MONOTONIC_COARSE);
#else
  return read(CLOCK_MONOTONIC);
#endif
}

MonotonicTime coarseClockStep() noexcept {
  static const MonotonicTime step = [] {
    timespec resolution{};
#ifdef CLOCK_MONOTONIC_COARSE
    clock_getres(CLOCK_MONOTONIC_COARSE, &resolution);
#else
    clock_getres(CLOCK_MONOTONIC, &resolution);
#endif
    return static_cast<MonotonicTime>(resolution.tv_sec) * 1'000'000'000 + resolution.tv_nsec;
  }();
  return step;
}

MonotonicTime timeAfter(MonotonicTime now, std::chrono::nanoseconds delay) noexcept {
  const MonotonicTime length = std::max<MonotonicTime>(delay.count(), 0);
  const MonotonicTime start = now + coarseClockStep();
  return length < kNever - start ? start + length : kNever - 1;
}

MonotonicTime timeAfter(MonotonicTime now, std::chrono::milliseconds delay) noexcept {
  constexpr auto kLongest =
      std::chrono::floor<std::chrono::milliseconds>(std::chrono::nanoseconds(kNever));
  return timeAfter(now, std::chrono::nanoseconds(std::min(delay, kLongest)));
}

MonotonicTime preciseNow() noexcept { return read(CLOCK_MONOTONIC); }

void advanceClock(std::chrono::nanoseconds step) noexcept {
  g_advance.fetch_add(step.count(), std::memory_order_relaxed);
}

void stopClock() noexcept {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  g_stopped_at.store(static_cast<MonotonicTime>(time.tv_sec) * 1'000'000'000 + time.tv_nsec,
                     std::memory_order_relaxed);
}

void startClock() noexcept { g_stopped_at.store(kNever, std::memory_order_relaxed); }

}  // namespace vel
