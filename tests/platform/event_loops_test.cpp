// VELEventLoops: handlers that block, the hand-over of loops, and how loops end.
#include "corvane/event_loops.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "corvane/error.h"
#include "platform/event_loop.h"
#include "platform/loop_pool.h"
#include "platform/queue_steps.h"
#include "support/log_capture.h"
#include "support/socket_events.h"

namespace vel::test {
namespace {

TEST(EventLoops, HeldHandlersDoNotStallTheirLoop) {
  const auto loops = std::make_shared<VELEventLoops>(1);
  ServedSocket served(loops);
  std::vector<std::shared_ptr<VELSerialQueue>> queues;
  for (int i = 0; i < 9; ++i) queues.push_back(std::make_shared<VELSerialQueue>("test", loops));
  Held held;
  for (size_t i = 0; i < 8; ++i) held.hold(*queues[i]);
  Count done;
  queues[8]->async([&] { done.add(); });
  queues[8]->after(std::chrono::milliseconds(2), [&] { done.add(); });
  EXPECT_TRUE(done.reaches(2));
  served.socket->readDataToLength(4, kNoTimeout, 1);
  served.peer.send("ping");
  EXPECT_EQ(served.events->await("read"), "read 1 ping");
  served.socket->writeData(VELData(std::string("pong")), kNoTimeout, 2);
  EXPECT_EQ(served.peer.receive(4), "pong");
  // What was posted to a held queue comes after its handler, in order.
  std::string order;
  for (int i = 0; i < 3; ++i) queues[0]->async([&order, i] { order += std::to_string(i); });
  held.letGo();
  queues[0]->sync([&] { EXPECT_EQ(order, "012"); });
  for (const auto& queue : queues) queue->sync([] {});
}

// A pool of one loop whose watcher looks only when the test says so.
class WatchedLoop : public testing::Test {
 protected:
  ~WatchedLoop() override {
    held_.letGo();
    for (const auto& queue : queues_) queue->sync([] {});
    pool_->stop();
    queues_.clear();
    pool_->letGo();
  }
  void start(size_t most_threads = 256) {
    LoopPoolOptions options;
    options.watches = false;
    options.most_threads = most_threads;
    pool_ = std::make_shared<LoopPool>(options);
    pool_->start();
    for (int i = 0; i < 6; ++i) {
      queues_.push_back(QueueRunner::makeQueue("test", *pool_->loops().front()));
    }
  }
  VELSerialQueue& queue(size_t i) { return *queues_[i]; }
  // Holds a queue and waits until its thread sleeps inside.
  void hold(size_t i) {
    held_.hold(queue(i));
    while (!pool_->loops().front()->driver()->isAsleep()) std::this_thread::yield();
  }
  int look(MonotonicTime now) { return pool_->watcher().look(now); }

  static constexpr MonotonicTime kMilli = 1'000'000;
  std::shared_ptr<LoopPool> pool_;
  std::vector<std::shared_ptr<VELSerialQueue>> queues_;
  Held held_;
  Count done_;
};

TEST_F(WatchedLoop, IsHandedOverWhenWorkWaitsAndTheTimeIsUp) {
  start();
  hold(0);
  MonotonicTime now = preciseNow();
  EXPECT_EQ(look(now), 0);
  // Nothing waits for the loop.
  EXPECT_EQ(look(now + 60 * kMilli), 0);
  const auto expectHandOver = [&](MonotonicTime patience) {
    EXPECT_EQ(look(now), 0);
    EXPECT_EQ(look(now + patience - 1), 0);
    const int done = done_.value();
    EXPECT_EQ(look(now + patience), 1);
    EXPECT_TRUE(done_.reaches(done + 1));
  };
  queue(1).async([&] { done_.add(); });
  expectHandOver(Watcher::kPatience);
  // Blocked handlers come in groups: for a while less patience is shown.
  hold(2);
  queue(3).async([&] { done_.add(); });
  now += 10 * kMilli;
  expectHandOver(Watcher::kPatienceAfterTake);

  hold(4);
  queue(5).async([&] { done_.add(); });
  now += Watcher::kAlertTime + 10 * kMilli;
  expectHandOver(Watcher::kPatience);
}

TEST_F(WatchedLoop, KeepsItsThreadWhileOnlyTheHeldQueueHasWork) {
  start();
  hold(0);
  queue(0).async([&] { done_.add(); });
  const MonotonicTime now = preciseNow();
  EXPECT_EQ(look(now), 0);
  EXPECT_EQ(look(now + 1000 * kMilli), 0);
  held_.letGo();
  EXPECT_TRUE(done_.reaches(1));
}

TEST_F(WatchedLoop, IsHandedOverForADeadlineThatIsDue) {
  start();
  queue(1).after(std::chrono::minutes(1), [&] { done_.add(); });
  hold(0);
  const MonotonicTime now = preciseNow();
  EXPECT_EQ(look(now), 0);
  EXPECT_EQ(look(now + 10 * kMilli), 0);
  advanceClock(std::chrono::minutes(2));
  EXPECT_EQ(look(now + 10 * kMilli), 1);
  EXPECT_TRUE(done_.reaches(1));
}

TEST_F(WatchedLoop, TellsComputingFromALostCore) {
  start();
  std::atomic<bool> goes_on{true};
  queue(0).async([&] {
    held_.inside.add();
    while (goes_on) {
    }
  });
  ASSERT_TRUE(held_.inside.reaches(1));
  queue(1).async([&] { done_.add(); });
  const MonotonicTime now = preciseNow();
  EXPECT_EQ(look(now), 0);
  // A thread that has computed next to nothing in 100 s, and does not sleep, waits for a core.
  EXPECT_EQ(look(now + 100'000 * kMilli), 0);
  // It computes, so some day it has computed for half of the patience.
  while (look(now + Watcher::kPatience) == 0) std::this_thread::yield();
  EXPECT_TRUE(done_.reaches(1));
  goes_on = false;
  queue(0).sync([] {});
}

TEST_F(WatchedLoop, StartsNoMoreThreadsThanAllowed) {
  const LogCapture log;
  start(1);
  hold(0);
  queue(1).async([] {});
  MonotonicTime now = preciseNow();
  look(now);
  EXPECT_EQ(look(now + Watcher::kPatience), 1);
  queue(1).sync([] {});
  hold(2);
  queue(3).async([&] { done_.add(); });
  now += 1000 * kMilli;
  look(now);
  EXPECT_EQ(look(now + Watcher::kPatience), 0);
  EXPECT_EQ(look(now + 2 * Watcher::kPatience), 0);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_NE(log.lines()[0].find("1 spare thread"), std::string::npos) << log.lines()[0];
  held_.letGo();
  EXPECT_TRUE(done_.reaches(1));
}

TEST_F(WatchedLoop, ThreadsThatLostTheirLoopAreUsedAgain) {
  start(2);
  for (int round = 0; round < 20; ++round) {
    Held held;
    held.hold(queue(0));
    queue(1).async([&] { done_.add(); });
    const MonotonicTime now = preciseNow() + round * 1000 * kMilli;
    look(now);
    while (look(now + Watcher::kPatience) == 0) std::this_thread::yield();
    ASSERT_TRUE(done_.reaches(round + 1));
    held.letGo();
    queue(0).sync([] {});
  }
}

TEST(EventLoops, StopRaisesOnAThreadOfTheirOwn) {
  const auto loops = std::make_shared<VELEventLoops>(2);
  Count raised;
  std::make_shared<VELSerialQueue>("test", loops)->async([&] {
    EXPECT_THROW(loops->stop(), VELException);
    raised.add();
  });
  EXPECT_TRUE(raised.reaches(1));
  loops->stop();
}

TEST(EventLoops, StopDropsWhatIsLeft) {
  const auto loops = std::make_shared<VELEventLoops>(1);
  const auto queue = std::make_shared<VELSerialQueue>("test", loops);
  const auto kept = std::make_shared<int>(1);
  const auto never = [kept] { ADD_FAILURE(); };
  {
    Held held;
    held.hold(*queue);
    queue->after(std::chrono::hours(1), never);
    std::thread stopping([&] { loops->stop(); });
    // Stops when the handler has ended: joining it comes first.
    held.letGo();
    stopping.join();
  }
  queue->async(never);
  queue->after(std::chrono::seconds(0), never);
  EXPECT_EQ(kept.use_count(), 2);
  // A caller of `sync` needs no loop.
  int run = 0;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < 200; ++j) queue->sync([&] { ++run; });
    });
  }
  threads.clear();
  EXPECT_EQ(run, 800);
}

// Posting while the loops stop loses no memory and harms nothing.
TEST(EventLoops, StopMayComeWhileOthersPost) {
  for (int round = 0; round < 50; ++round) {
    const auto loops = std::make_shared<VELEventLoops>(2);
    std::atomic<int> run{0};
    std::vector<std::jthread> threads;
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([&] {
        const auto queue = std::make_shared<VELSerialQueue>("test", loops);
        for (int j = 0; j < 100; ++j) {
          queue->async([&] { ++run; });
          queue->sync([&] { ++run; });
          queue->after(std::chrono::milliseconds(0), [&] { ++run; });
        }
      });
    }
    loops->stop();
    threads.clear();
  }
}

TEST(EventLoops, GoOnUntilTheirLastQueueIsGone) {
  Count done;
  auto loops = std::make_shared<VELEventLoops>(1);
  const std::weak_ptr<LoopPool> pool = loops->pool();
  auto queue = std::make_shared<VELSerialQueue>("test", loops);
  loops.reset();
  queue->async([&] { done.add(); });
  EXPECT_TRUE(done.reaches(1));
  // The last reference to the queue, and so to the loops, may go away on one of their threads.
  VELSerialQueue& last = *queue;
  last.async([&done, queue = std::move(queue)]() mutable { done.add(); });
  EXPECT_TRUE(done.reaches(2));
  while (!pool.expired()) std::this_thread::yield();
}

}  // namespace
}  // namespace vel::test
