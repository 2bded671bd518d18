// LogCapture: collects the library's log lines while it lives.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "corvane/log.h"

namespace vel::test {

class LogCapture {
 public:
  LogCapture() {
    VELSetLogSink([store = store_](std::string_view line) {
      const std::lock_guard lock(store->mutex);
      store->lines.emplace_back(line);
    });
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() { VELSetLogSink(nullptr); }

  /// The lines so far, in order.
  std::vector<std::string> lines() const {
    const std::lock_guard lock(store_->mutex);
    return store_->lines;
  }

 private:
  struct Store {
    std::mutex mutex;
    std::vector<std::string> lines;
  };
  // Shared with the sink, which another thread may still be calling after it was replaced.
  std::shared_ptr<Store> store_ = std::make_shared<Store>();
};

}  // namespace vel::test
