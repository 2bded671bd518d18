// StoppedClock: time that goes by only when a test says so.
#pragma once

#include "platform/clock.h"
#include "support/manual_loops.h"

namespace vel::test {

class StoppedClock {
 public:
  StoppedClock() { stopClock(); }
  StoppedClock(const StoppedClock&) = delete;
  StoppedClock& operator=(const StoppedClock&) = delete;
  ~StoppedClock() { startClock(); }

  /// Lets `time` go by for what runs on `loops`.
  void advance(std::chrono::nanoseconds time, ManualLoops& loops) {
    advanceClock(time);
    loops.run();
  }
};

}  // namespace vel::test
