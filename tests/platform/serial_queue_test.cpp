// VELSerialQueue: order, time, exceptions and life-time of posted work; `sync`: who runs what where,
// circles, and many threads at once.
#include "corvane/serial_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <functional>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "corvane/error.h"
#include "platform/queue_steps.h"
#include "support/log_capture.h"

namespace vel::test {
namespace {

std::shared_ptr<VELSerialQueue> makeQueue() { return makeQueues(1, 1)[0]; }

TEST(SerialQueue, RunsABurstInOrder) {
  const auto queue = makeQueue();
  constexpr int kBurst = 1'000'000;
  int next = 0;
  int misplaced = 0;
  Held held;
  held.hold(*queue);
  for (int i = 0; i < kBurst; ++i) {
    queue->async([&, i] {
      if (next++ != i) ++misplaced;
    });
  }
  held.letGo();
  queue->sync([] {});
  EXPECT_EQ(next, kBurst);
  EXPECT_EQ(misplaced, 0);
}

// More than one round of a loop can take, while another queue wants the same loop.
TEST(SerialQueue, LetsOthersHaveTheirTurn) {
  const auto queues = makeQueues(2, 1);
  std::atomic<bool> goes_on{true};
  Count stopped;
  const std::function<void()> again = [&] { goes_on ? queues[0]->async(again) : stopped.add(); };
  queues[0]->async(again);
  settle(*queues[1]);
  goes_on = false;
  EXPECT_TRUE(stopped.reaches(1));
}

struct Complaints final : LastResort {
  void workDidThrow(const std::exception_ptr&) override {
    EXPECT_TRUE(queue->isCurrent());
    count.add();
  }
  VELSerialQueue* queue = nullptr;
  Count count;
};

TEST(SerialQueue, SurvivesWorkThatThrows) {
  const LogCapture log;
  const auto queue = makeQueue();
  const auto complaints = std::make_shared<Complaints>();
  complaints->queue = queue.get();
  queue->setLastResort(complaints);
  Count handled;
  VELSerialQueue::setUncaughtExceptionHandler([&](const std::exception_ptr&) { handled.add(); });
  int run = 0;
  queue->async([&] { throw std::runtime_error("first of all"); });
  queue->async([&] { ++run; });
  queue->async([&] { throw 7; });
  queue->after(std::chrono::milliseconds(1), [&] { throw VELException("Name", "too late"); });
  queue->async([&] { ++run; });
  EXPECT_TRUE(complaints->count.reaches(3));
  queue->sync([&] { EXPECT_EQ(run, 2); });
  EXPECT_EQ(handled.value(), 3);
  VELSerialQueue::setUncaughtExceptionHandler(nullptr);
  const std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_NE(lines[0].find("first of all"), std::string::npos);
  EXPECT_NE(lines[2].find("too late"), std::string::npos);
}

TEST(SerialQueue, SurvivesALastResortThatThrows) {
  const LogCapture log;
  struct Thrower final : LastResort {
    void workDidThrow(const std::exception_ptr&) override { throw 1; }
  };
  const auto queue = makeQueue();
  const auto thrower = std::make_shared<Thrower>();
  queue->setLastResort(thrower);
  queue->async([] { throw 2; });
  settle(*queue);
  EXPECT_EQ(log.lines().size(), 2U);
}

TEST(SerialQueue, DelayedWorkIsNeverEarly) {
  const auto queue = makeQueue();
  Count done;
  std::vector<int> order;
  const MonotonicTime start = preciseNow();
  for (const int delay : {17, 3, 0, 9}) {
    queue->after(std::chrono::milliseconds(delay), [&, delay] {
      EXPECT_GE(preciseNow() - start, delay * 1'000'000);
      order.push_back(delay);
      done.add();
    });
  }
  ASSERT_TRUE(done.reaches(4));
  queue->sync([&] { EXPECT_EQ(order.size(), 4U); });
}

TEST(SerialQueue, DelayedWorkWaitsForItsTimeHoweverLong) {
  const auto queue = makeQueue();
  Count done;
  queue->after(std::chrono::hours(3), [&] { done.add(); });
  queue->after(std::chrono::hours(2), [&] { done.add(); });
  for (const int expected : {0, 1, 2}) {
    letPass(*queue, std::chrono::minutes(expected == 0 ? 90 : 60));
    EXPECT_TRUE(done.reaches(expected));
    queue->sync([&] { EXPECT_EQ(done.value(), expected); });
  }
}

TEST(SerialQueue, EndlessDelayIsNoDelayThatWrapsAround) {
  const auto loops = std::make_shared<VELEventLoops>(1);
  const auto queue = std::make_shared<VELSerialQueue>("test", loops);
  Count done;
  queue->after(std::chrono::nanoseconds::max(), [&] { ADD_FAILURE(); });
  queue->after(std::chrono::milliseconds(-5), [&] { done.add(); });
  EXPECT_TRUE(done.reaches(1));
  loops->stop();
}

TEST(SerialQueue, StaysAliveWhileItHasWork) {
  const auto loops = std::make_shared<VELEventLoops>(1);
  Count gone;
  Count done;
  const auto make = [&] {
    return std::shared_ptr<VELSerialQueue>(new VELSerialQueue("test", loops),
                                           [&](VELSerialQueue* queue) {
                                             delete queue;
                                             gone.add();
                                           });
  };
  make()->async([&] { done.add(); });
  make()->after(std::chrono::milliseconds(1), [&] { done.add(); });
  // The last reference goes away in the queue's own work.
  auto own = make();
  VELSerialQueue& queue = *own;
  queue.async([&done, own = std::move(own)] {
    EXPECT_TRUE(own->isCurrent());
    done.add();
  });
  EXPECT_TRUE(done.reaches(3));
  EXPECT_TRUE(gone.reaches(3));
}

TEST(SerialQueue, SyncTakesAListedQueueThatNobodyElseHolds) {
  auto queues = makeQueues(2, 1);
  // The loop is held up for less than the watcher's patience, or taken over: both must do.
  Held held;
  held.hold(*queues[0]);
  std::string order;
  queues[1]->async([&] { order += 'a'; });
  queues[1]->sync([&] { order += 'b'; });
  queues.pop_back();
  EXPECT_EQ(order, "ab");
  held.letGo();
  queues[0]->sync([] {});
}

TEST(SerialQueue, KeepsSpecificValues) {
  const auto outer = makeQueue();
  const auto inner = makeQueue();
  int key = 0;
  int other_key = 0;
  int one = 1;
  int two = 2;
  outer->setSpecific(&key, &one);
  outer->setSpecific(&other_key, &two);
  EXPECT_EQ(outer->specific(&key), &one);
  EXPECT_EQ(inner->specific(&key), nullptr);
  EXPECT_EQ(VELSerialQueue::currentSpecific(&key), nullptr);
  outer->sync([&] {
    EXPECT_EQ(VELSerialQueue::currentSpecific(&key), &one);
    inner->setSpecific(&key, &two);
    inner->sync([&] {
      EXPECT_EQ(VELSerialQueue::currentSpecific(&key), &two);
      EXPECT_EQ(VELSerialQueue::currentSpecific(&other_key), &two);
    });
  });
}

// Whatever replaces whatever: only the first value that is its own key lies apart from the others.
TEST(SerialQueue, KeepsValuesThatAreTheirOwnKeys) {
  const auto queue = makeQueue();
  int keys[2] = {};
  int other = 0;
  void* const values[] = {&keys[0], &other, nullptr, &keys[1]};
  for (void* const first : values) {
    for (void* const second : values) {
      queue->setSpecific(&keys[0], first);
      queue->setSpecific(&keys[1], second);
      EXPECT_EQ(queue->specific(&keys[0]), first);
      EXPECT_EQ(queue->specific(&keys[1]), second);
      EXPECT_EQ(queue->specific(nullptr), nullptr);
    }
  }
}

TEST(SerialQueueSync, RunsOnTheCallersThreadAfterWhatWasPosted) {
  const auto queue = makeQueue();
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
  const auto queue = makeQueue();
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

// Counters without locks: two threads in one queue at once are a data race, lost work is a wrong sum.
TEST(SerialQueueSync, HoldsUnderManyThreads) {
  constexpr size_t kQueues = 5;
  constexpr size_t kThreads = 6;
  constexpr int kRounds = 2000;
  const auto queues = makeQueues(kQueues, 2);
  std::vector<int> counters(kQueues, 0);
  // Nested always in a higher one: no circles.
  const auto countInBoth = [&](size_t at) {
    ++counters[at];
    if (at + 1 < kQueues) queues[at + 1]->sync([&] { ++counters[at + 1]; });
  };
  // By each thread, so that counting orders nothing between them.
  std::vector<int> expected(kThreads, 0);
  std::vector<std::jthread> threads;
  for (size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::minstd_rand random(static_cast<unsigned>(t + 1));
      for (int i = 0; i < kRounds; ++i) {
        const size_t at = random() % kQueues;
        const auto kind = random() % 4;
        if (kind == 0) queues[at]->sync([&] { ++counters[at]; });
        if (kind == 1) queues[at]->async([&, at] { ++counters[at]; });
        if (kind == 2) queues[at]->sync([&] { countInBoth(at); });
        if (kind == 3) queues[at]->async([&, at] { countInBoth(at); });
        expected[t] += kind >= 2 && at + 1 < kQueues ? 2 : 1;
      }
    });
  }
  threads.clear();
  int sum = 0;
  // From the lowest on: what a queue still has to do may go on to the next.
  for (size_t i = 0; i < kQueues; ++i) queues[i]->sync([&] { sum += counters[i]; });
  EXPECT_EQ(sum, std::accumulate(expected.begin(), expected.end(), 0));
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
