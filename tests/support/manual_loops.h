// ManualLoops: event loops that run on the test's own thread, when the test says so.
#pragma once

#include <functional>
#include <memory>

#include "corvane/event_loops.h"

namespace vel::test {

/// One loop without a thread. Nothing happens on it but inside these calls, so that a test knows what
/// has been done, and what has not.
class ManualLoops {
 public:
  ManualLoops();

  const std::shared_ptr<VELEventLoops>& loops() const { return loops_; }
  /// Runs all that is ready, and what that makes ready.
  /// Errors:  raises `std::runtime_error` when there is no end of it.
  void run();
  /// Runs, and waits for what other threads post, until `isDone`; false after `kPatience`.
  bool runUntil(const std::function<bool()>& isDone);

 private:
  const std::shared_ptr<VELEventLoops> loops_;
};

}  // namespace vel::test
