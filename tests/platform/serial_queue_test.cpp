// VELSerialQueue: order, time, exceptions and life-time of posted work.
#include "corvane/serial_queue.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "corvane/error.h"
#include "platform/clock.h"
#include "support/count.h"
#include "support/log_capture.h"

namespace vel::test {
namespace {

std::shared_ptr<VELSerialQueue> makeQueue(size_t loops = 1) {
  return std::make_shared<VELSerialQueue>("test", std::make_shared<VELEventLoops>(loops));
}

TEST(SerialQueue, RunsABurstInOrder) {
  const auto queue = makeQueue();
  constexpr int kBurst = 1'000'000;
  Count may_go;
  int next = 0;
  int misplaced = 0;
  queue->async([&] { EXPECT_TRUE(may_go.reaches(1)); });
  for (int i = 0; i < kBurst; ++i) {
    queue->async([&, i] {
      if (next++ != i) ++misplaced;
    });
  }
  may_go.add();
  queue->sync([] {});
  EXPECT_EQ(next, kBurst);
  EXPECT_EQ(misplaced, 0);
}

TEST(SerialQueue, RunsWorkThatWorkPosts) {
  const auto queue = makeQueue();
  Count done;
  std::string order;
  queue->async([&] {
    queue->async([&] {
      order += 'c';
      done.add();
    });
    order += 'a';
  });
  queue->async([&] { order += 'b'; });
  ASSERT_TRUE(done.reaches(1));
  EXPECT_TRUE(order == "abc" || order == "acb") << order;
}

// More than one round of a loop can take, while another queue wants the same loop.
TEST(SerialQueue, LetsOthersHaveTheirTurn) {
  const auto loops = std::make_shared<VELEventLoops>(1);
  VELEventLoops& own = *loops;
  EXPECT_EQ(own.count(), 1U);
  const auto busy = std::make_shared<VELSerialQueue>("busy", loops);
  const auto other = std::make_shared<VELSerialQueue>("other", loops);
  Count stopped;
  std::atomic<bool> goes_on{true};
  std::function<void()> again = [&] {
    if (goes_on) {
      busy->async(again);
    } else {
      stopped.add();
    }
  };
  busy->async(again);
  Count done;
  other->async([&] { done.add(); });
  EXPECT_TRUE(done.reaches(1));
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
  Count run;
  queue->async([] { throw 2; });
  queue->async([&] { run.add(); });
  EXPECT_TRUE(run.reaches(1));
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
  advanceClock(std::chrono::minutes(90));
  queue->sync([] {});
  queue->async([] {});
  queue->sync([&] { EXPECT_EQ(done.value(), 0); });
  advanceClock(std::chrono::minutes(60));
  queue->async([] {});
  ASSERT_TRUE(done.reaches(1));
  queue->sync([&] { EXPECT_EQ(done.value(), 1); });
  advanceClock(std::chrono::minutes(60));
  queue->async([] {});
  EXPECT_TRUE(done.reaches(2));
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
  Count may_go;
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
  const auto loops = std::make_shared<VELEventLoops>(1);
  const auto blocked = std::make_shared<VELSerialQueue>("blocked", loops);
  Count is_blocked;
  Count may_go;
  // The loop is held up for less than the watcher's patience, or taken over: both must do.
  blocked->async([&] {
    is_blocked.add();
    EXPECT_TRUE(may_go.reaches(1));
  });
  ASSERT_TRUE(is_blocked.reaches(1));
  std::string order;
  {
    const auto queue = std::make_shared<VELSerialQueue>("test", loops);
    queue->async([&] { order += 'a'; });
    queue->sync([&] { order += 'b'; });
  }
  EXPECT_EQ(order, "ab");
  may_go.add();
  blocked->sync([] {});
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
  outer->setSpecific(&key, nullptr);
  EXPECT_EQ(outer->specific(&key), nullptr);
  EXPECT_EQ(outer->label(), "test");
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

}  // namespace
}  // namespace vel::test
