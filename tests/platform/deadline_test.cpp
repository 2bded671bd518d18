// Deadlines: never early, never lost, however they are armed, moved and taken away.
#include "platform/deadline.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "platform/queue_steps.h"

namespace vel::test {
namespace {

class TestDeadline final : public Deadline, public std::enable_shared_from_this<TestDeadline> {
 public:
  explicit TestDeadline(Count& fired) : fired_(fired) {}
  ~TestDeadline() override { remove(); }
  // The earliest time at which it may fire; set together with arming.
  void armFor(VELSerialQueue& queue, MonotonicTime due) {
    queue_ = &queue;
    expected = due;
    armAt(queue, due);
  }
  void cancel() {
    expected = kNever;
    disarm();
  }

  MonotonicTime expected = kNever;
  std::function<void(TestDeadline&)> reaction;

 private:
  void deadlineDidFire() override {
    EXPECT_TRUE(queue_->isCurrent());
    EXPECT_FALSE(isArmed());
    EXPECT_GE(coarseNow(), expected);
    expected = kNever;
    fired_.add();
    if (reaction) reaction(*this);
  }
  std::shared_ptr<void> deadlineOwner() override { return weak_from_this().lock(); }

  Count& fired_;
  VELSerialQueue* queue_ = nullptr;
};

class DeadlineTest : public testing::Test {
 protected:
  // A firing may be at its end just now.
  ~DeadlineTest() override {
    queue_->sync([] {});
    other_->sync([] {});
  }
  std::shared_ptr<TestDeadline> make() { return std::make_shared<TestDeadline>(fired_); }
  // Advances the clock and has the loops notice.
  void pass(std::chrono::milliseconds time) {
    advanceClock(time);
    wake();
  }
  void wake() {
    settle(*queue_);
    settle(*other_);
  }

  Count fired_;
  std::shared_ptr<VELEventLoops> loops_ = std::make_shared<VELEventLoops>(2);
  std::shared_ptr<VELSerialQueue> queue_ = std::make_shared<VELSerialQueue>("test", loops_);
  // On the other loop.
  std::shared_ptr<VELSerialQueue> other_ = std::make_shared<VELSerialQueue>("test", loops_);
};

constexpr MonotonicTime kSecond = 1'000'000'000;

TEST_F(DeadlineTest, FiresAtItsLastDueTime) {
  struct Case {
    const char* name;
    std::vector<int> seconds;  // armed for, one after the other; negative disarms
    int fires_after;           // never when negative
  };
  const Case cases[] = {
      {"once", {20}, 20},
      {"later", {20, 50}, 50},
      {"earlier", {50, 20}, 20},
      {"disarmed", {20, -1}, -1},
      {"disarmed and armed later", {20, -1, 40}, 40},
      {"disarmed and armed earlier", {50, -1, 20}, 20},
      {"to and fro", {20, 80, 30, 60, 40}, 40},
      {"beyond a round of the wheel", {100}, 100},
      {"at once", {20, 0}, 0},
  };
  for (const Case& entry : cases) {
    SCOPED_TRACE(entry.name);
    const auto deadline = make();
    const int before = fired_.value();
    queue_->sync([&] {
      const MonotonicTime now = coarseNow();
      for (const int seconds : entry.seconds) {
        seconds < 0 ? deadline->cancel() : deadline->armFor(*queue_, now + seconds * kSecond);
      }
    });
    int passed = 0;
    // Looks on the way must neither fire it early nor lose it.
    for (const int seconds : {10, 10, 10, 10, 10, 10, 40, 20}) {
      if (entry.fires_after >= 0 && passed >= entry.fires_after) break;
      queue_->sync([&] { EXPECT_EQ(fired_.value(), before); });
      pass(std::chrono::seconds(seconds));
      passed += seconds;
    }
    const int expected = before + (entry.fires_after >= 0 ? 1 : 0);
    EXPECT_TRUE(fired_.reaches(expected));
    queue_->sync([&] { EXPECT_EQ(fired_.value(), expected); });
  }
}

TEST_F(DeadlineTest, ManyFireInTheirTimeAndOnce) {
  constexpr int kMany = 10'000;
  std::minstd_rand random(1);
  std::uniform_int_distribution<MonotonicTime> milliseconds(60'000, 120'000);
  std::vector<std::shared_ptr<TestDeadline>> deadlines;
  std::vector<MonotonicTime> dues;
  for (int i = 0; i < kMany; ++i) deadlines.push_back(make());
  const MonotonicTime start = coarseNow();
  for (const auto& deadline : deadlines) {
    // Over some rounds of the wheel, and many in one slot.
    dues.push_back(start + milliseconds(random) * 1'000'000);
    VELSerialQueue& queue = random() % 2 == 0 ? *queue_ : *other_;
    queue.sync([&] {
      if (random() % 3 == 0) deadline->armFor(queue, start + 200 * kSecond);
      deadline->armFor(queue, dues.back());
    });
  }
  std::ranges::sort(dues);
  for (int step = 0; step < 125; ++step) {
    pass(std::chrono::seconds(1));
    const auto due = std::ranges::upper_bound(dues, coarseNow()) - dues.begin();
    ASSERT_TRUE(fired_.reaches(static_cast<int>(due))) << step;
  }
  queue_->sync([] {});
  other_->sync([] {});
  EXPECT_EQ(fired_.value(), kMany);
}

TEST_F(DeadlineTest, MayBeArmedAgainWhileItFires) {
  const auto deadline = make();
  deadline->reaction = [this](TestDeadline& self) {
    const MonotonicTime delay = fired_.value() % 2 == 0 ? 0 : 30 * kSecond;
    if (fired_.value() < 8) self.armFor(*queue_, coarseNow() + delay);
  };
  queue_->sync([&] { deadline->armFor(*queue_, coarseNow() + kSecond); });
  for (int i = 0; i < 8; i += 2) {
    queue_->sync([] {});
    pass(std::chrono::seconds(31));
    ASSERT_TRUE(fired_.reaches(i + 1));
  }
  EXPECT_TRUE(fired_.reaches(7));
}

TEST_F(DeadlineTest, GoesAlongToAQueueOfAnotherLoop) {
  const auto deadline = make();
  for (int i = 0; i < 4; ++i) {
    VELSerialQueue& from = i % 2 == 0 ? *queue_ : *other_;
    VELSerialQueue& to = i % 2 == 0 ? *other_ : *queue_;
    from.sync([&] {
      deadline->armFor(from, coarseNow() + 20 * kSecond);
      deadline->remove();
    });
    to.sync([&] { deadline->armFor(to, coarseNow() + 40 * kSecond); });
    pass(std::chrono::seconds(30));
    to.sync([&] { EXPECT_EQ(fired_.value(), i); });
    pass(std::chrono::seconds(30));
    ASSERT_TRUE(fired_.reaches(i + 1));
  }
}

// Whoever goes away between the wheel and the queue is neither told nor touched.
TEST_F(DeadlineTest, MayGoAwayAtAnyTime) {
  for (int i = 0; i < 300; ++i) {
    auto deadline = make();
    queue_->sync([&] { deadline->armFor(*queue_, coarseNow() + (i % 3) * 1'000'000); });
    if (i % 2 == 0) wake();
    queue_->sync([&] { deadline.reset(); });
  }
  wake();
}

// The wheel and the queue at once: an arming must never fall between the two.
TEST_F(DeadlineTest, NoArmingIsLost) {
  const auto deadline = make();
  std::atomic<bool> goes_on{true};
  std::jthread rearming([&] {
    while (goes_on) {
      queue_->sync([&] { deadline->armFor(*queue_, coarseNow() + 2'000'000); });
      std::this_thread::yield();
      queue_->sync([&] { deadline->armFor(*queue_, coarseNow()); });
    }
  });
  EXPECT_TRUE(fired_.reaches(100));
  goes_on = false;
  rearming.join();
  const int before = fired_.value();
  queue_->sync([&] { deadline->armFor(*queue_, coarseNow() + 1'000'000); });
  EXPECT_TRUE(fired_.reaches(before + 1));
}

}  // namespace
}  // namespace vel::test
