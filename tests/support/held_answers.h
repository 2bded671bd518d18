// HeldAnswers: a handler that answers nothing until the test says so.
#pragma once

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "corvane/block_route.h"
#include "support/test_server.h"

namespace vel::test {

class HeldAnswers {
 public:
  /// A handler that keeps the response handler; the object must outlive the server.
  VELBlockRoute::Handler handler() {
    return [this](VELRoute&, const std::shared_ptr<VELRequest>&, VELResponseHandler respond) {
      const std::lock_guard guard(mutex_);
      held_.push_back(std::move(respond));
      changed_.notify_all();
    };
  }

  /// Waits for the next request, and gives its response handler.
  VELResponseHandler take() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kPatience, [this] { return !held_.empty(); })) {
      throw std::runtime_error("no request has come");
    }
    VELResponseHandler respond = std::move(held_.front());
    held_.erase(held_.begin());
    return respond;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_.
  std::vector<VELResponseHandler> held_;
};

}  // namespace vel::test
