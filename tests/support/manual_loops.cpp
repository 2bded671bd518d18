#include "support/manual_loops.h"

#include <chrono>
#include <stdexcept>

#include "platform/event_loop.h"
#include "platform/loop_pool.h"
#include "platform/queue_runner.h"
#include "support/wire.h"

namespace vel::test {
namespace {

constexpr int kMostTurns = 1'000'000;
constexpr std::chrono::milliseconds kLook{10};

EventLoop& loopOf(const VELEventLoops& loops) { return *loops.pool()->loops().front(); }

std::shared_ptr<LoopPool> makePool() {
  LoopPoolOptions options;
  options.watches = false;
  options.has_threads = false;
  return std::make_shared<LoopPool>(options);
}

}  // namespace

ManualLoops::ManualLoops() : loops_(std::make_shared<VELEventLoops>(makePool())) {}

void ManualLoops::run() {
  if (!loopOf(*loops_).driveUntilIdle(ThreadRecord::current(), kMostTurns)) {
    throw std::runtime_error("the loop finds no rest");
  }
}

bool ManualLoops::runUntil(const std::function<bool()>& isDone) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (true) {
    run();
    if (isDone()) return true;
    if (std::chrono::steady_clock::now() > end) return false;
    loopOf(*loops_).driveOnce(ThreadRecord::current(), kLook);
  }
}

}  // namespace vel::test
