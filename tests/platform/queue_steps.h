// Steps that tests take with queues: to hold them up, to wait for them, to let time pass on them.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "corvane/serial_queue.h"
#include "platform/clock.h"
#include "support/count.h"

namespace vel::test {

/// Handlers that stay where they are until they are let go.
struct Held {
  ~Held() { letGo(); }
  /// Returns once the queue is held.
  void hold(VELSerialQueue& queue) {
    const int before = inside.value();
    queue.async([this] {
      inside.add();
      EXPECT_TRUE(may_go.reaches(1));
    });
    ASSERT_TRUE(inside.reaches(before + 1));
  }
  void letGo() { may_go.add(); }
  Count inside;
  Count may_go;
};

/// Lets the loop of `queue` come to what has arrived.
inline void settle(VELSerialQueue& queue) {
  for (int i = 0; i < 2; ++i) {
    Count done;
    queue.async([&] { done.add(); });
    ASSERT_TRUE(done.reaches(1));
  }
}

/// Pushes the clock by `time` once the queue has settled, and lets it settle again.
inline void letPass(VELSerialQueue& queue, std::chrono::milliseconds time) {
  settle(queue);
  advanceClock(time);
  settle(queue);
}

inline std::vector<std::shared_ptr<VELSerialQueue>> makeQueues(size_t count, size_t loops) {
  const auto pool = std::make_shared<VELEventLoops>(loops);
  std::vector<std::shared_ptr<VELSerialQueue>> queues;
  for (size_t i = 0; i < count; ++i) {
    queues.push_back(std::make_shared<VELSerialQueue>("queue " + std::to_string(i), pool));
  }
  return queues;
}

}  // namespace vel::test
