// Monotonic time in nanoseconds, as deadlines use it. A test may push it forward, and stop it.
#pragma once

#include <chrono>
#include <cstdint>

namespace vel {

/// Nanoseconds of a clock that never goes back; zero is arbitrary.
using MonotonicTime = int64_t;

inline constexpr MonotonicTime kNever = INT64_MAX;

/// Cheap, some milliseconds coarse, never ahead of the precise clock.
MonotonicTime coarseNow() noexcept;
/// How far `coarseNow` may lag.
MonotonicTime coarseClockStep() noexcept;
/// Precise.
MonotonicTime preciseNow() noexcept;

/// The coarse time that is `delay` after `now`, and never early by the precise clock; the last one before
/// `kNever` when it is beyond what the clock counts.
MonotonicTime timeAfter(MonotonicTime now, std::chrono::nanoseconds delay) noexcept;
MonotonicTime timeAfter(MonotonicTime now, std::chrono::milliseconds delay) noexcept;

/// Pushes both clocks forward for the rest of the process. For tests: the loops must be woken by other
/// work to notice.
void advanceClock(std::chrono::nanoseconds step) noexcept;
/// Stops both clocks: only `advanceClock` moves them from here on, until they are started again. For tests
/// that drive their loops themselves.
void stopClock() noexcept;
void startClock() noexcept;

}  // namespace vel
