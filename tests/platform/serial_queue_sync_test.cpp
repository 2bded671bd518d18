// VELSerialQueue::sync: who runs what where, circles, and many threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "corvane/error.h"
#include "corvane/serial_queue.h"
#include "support/count.h"

namespace vel::test {
namespace {

std::vector<std::shared_ptr<VELSerialQueue>> makeQueues(size_t count, size_t loops) {
  const auto pool = std::make_shared<VELEventLoops>(loops);
  std::vector<std::shared_ptr<VELSerialQueue>> queues;
  for (size_t i = 0; i < count; ++i) {
    queues.push_back(std::make_shared<VELSerialQueue>("queue " + std::to_string(i), pool));
  }
  return queues;
}

TEST(SerialQueueSync, RunsOnTheCallersThreadAfterWhatWasPosted) {
  const auto queue = makeQueues(1, 1)[0];
  for (int round = 0; round < 1000; ++round) {
    int run = 0;
    for (int i = 0; i < 3; ++i) queue->async([&] { ++run; });
    const auto thread = std::this_thread::get_id();
    queue->sync([&] {
      EXPECT_EQ(run, 3);
      EXPECT_EQ(std::this_thread::get_id(), thread);
    });
  }
}

TEST(SerialQueueSync, GivesBackWhatTheWorkThrows) {
  const auto queue = makeQueues(1, 1)[0];
  EXPECT_THROW(queue->sync([] { throw std::out_of_range("x"); }), std::out_of_range);
  bool is_free = false;
  queue->sync([&] { is_free = true; });
  EXPECT_TRUE(is_free);
}

TEST(SerialQueueSync, QueuesOfNestedCallsAreAllCurrent) {
  const auto queues = makeQueues(3, 1);
  Count done;
  queues[0]->async([&] {
    EXPECT_TRUE(queues[0]->isCurrent());
    queues[1]->sync([&] {
      queues[2]->sync([&] {
        for (const auto& queue : queues) EXPECT_TRUE(queue->isCurrent());
        std::thread([&] {
          for (const auto& queue : queues) EXPECT_FALSE(queue->isCurrent());
        }).join();
      });
      EXPECT_FALSE(queues[2]->isCurrent());
    });
    EXPECT_FALSE(queues[1]->isCurrent());
    done.add();
  });
  EXPECT_TRUE(done.reaches(1));
  queues[0]->sync([] {});
  EXPECT_FALSE(queues[0]->isCurrent());
}

TEST(SerialQueueSync, RaisesOnTheOwnQueue) {
  const auto queues = makeQueues(2, 1);
  Count raised;
  const auto tryIt = [&] {
    try {
      queues[0]->sync([] {});
      ADD_FAILURE();
    } catch (const VELException& exception) {
      EXPECT_EQ(exception.name(), VELInvalidArgumentException);
      raised.add();
    }
  };
  queues[0]->sync(tryIt);
  queues[0]->async(tryIt);
  queues[0]->sync([&] { queues[1]->sync(tryIt); });
  EXPECT_TRUE(raised.reaches(3));
}

// Whoever would close the circle is refused, and with that the others go on.
TEST(SerialQueueSync, RefusesToCloseACircle) {
  for (const bool on_loops : {false, true}) {
    for (const size_t length : {2U, 3U, 5U}) {
      const auto queues = makeQueues(length, length);
      std::barrier held(static_cast<ptrdiff_t>(length));
      std::atomic<int> raised{0};
      std::atomic<int> completed{0};
      Count done;
      const auto hold = [&](size_t i) {
        held.arrive_and_wait();
        try {
          queues[(i + 1) % length]->sync([&] { ++completed; });
        } catch (const VELException& exception) {
          EXPECT_EQ(exception.name(), VELInvalidArgumentException);
          ++raised;
        }
        done.add();
      };
      std::vector<std::jthread> threads;
      for (size_t i = 0; i < length; ++i) {
        if (on_loops) {
          queues[i]->async([&, i] { hold(i); });
        } else {
          threads.emplace_back([&, i] { queues[i]->sync([&] { hold(i); }); });
        }
      }
      ASSERT_TRUE(done.reaches(static_cast<int>(length)));
      EXPECT_EQ(raised, 1);
      EXPECT_EQ(completed, static_cast<int>(length) - 1);
      for (const auto& queue : queues) queue->sync([] {});
    }
  }
}

TEST(SerialQueueSync, ServesThoseWhoWaitInLine) {
  const auto queue = makeQueues(1, 1)[0];
  Count is_held;
  Count may_go;
  queue->async([&] {
    is_held.add();
    EXPECT_TRUE(may_go.reaches(1));
  });
  ASSERT_TRUE(is_held.reaches(1));
  int inside = 0;
  Count done;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      queue->sync([&] { ++inside; });
      queue->async([&] { done.add(); });
    });
  }
  may_go.add();
  EXPECT_TRUE(done.reaches(8));
  threads.clear();
  EXPECT_EQ(inside, 8);
}

// Counters without locks: two threads in one queue at once are a data race, lost work is a wrong sum.
TEST(SerialQueueSync, HoldsUnderManyThreads) {
  constexpr size_t kQueues = 5;
  constexpr int kThreads = 6;
  constexpr int kRounds = 2000;
  const auto queues = makeQueues(kQueues, 2);
  std::vector<int> counters(kQueues, 0);
  Count done;
  std::vector<std::jthread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::minstd_rand random(static_cast<unsigned>(t + 1));
      for (int i = 0; i < kRounds; ++i) {
        const size_t at = random() % kQueues;
        const size_t next = at + 1;
        switch (random() % 4) {
          case 0:
            queues[at]->sync([&] { ++counters[at]; });
            break;
          case 1:
            queues[at]->async([&, at] { ++counters[at]; });
            break;
          case 2:  // always to a higher one: no circles
            queues[at]->sync([&] {
              ++counters[at];
              if (next < kQueues) queues[next]->sync([&] { ++counters[next]; });
            });
            if (next == kQueues) break;
            queues[next]->async([&, next] { --counters[next]; });
            break;
          default:
            queues[at]->async([&, at, next] {
              ++counters[at];
              if (next < kQueues) queues[next]->sync([&] { --counters[next]; });
            });
            if (next < kQueues) queues[next]->async([&, next] { ++counters[next]; });
        }
      }
    });
  }
  threads.clear();
  int sum = 0;
  // From the lowest on: what a queue still has to do may post to the next.
  for (size_t i = 0; i < kQueues; ++i) queues[i]->sync([&] { sum += counters[i]; });
  EXPECT_EQ(sum, kThreads * kRounds);
}

// Records of threads that held a queue a moment ago must not be looked at any more.
TEST(SerialQueueSync, ThreadsMayEndWhileOthersLookForCircles) {
  const auto queues = makeQueues(2, 1);
  int count = 0;
  for (int round = 0; round < 200; ++round) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] { queues[0]->sync([&] { queues[1]->sync([&] { ++count; }); }); });
    }
  }
  EXPECT_EQ(count, 800);
}

}  // namespace
}  // namespace vel::test
