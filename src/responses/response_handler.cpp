// VELResponseHandler, and the sink behind a callback of a host's own. The connection has its own
// sink.
#include "corvane/response_handler.h"

#include <atomic>

#include "platform/log.h"

namespace {

class CallbackSink final : public vel::ResponseSink {
 public:
  explicit CallbackSink(VELResponseHandler::Callback callback) : callback_(std::move(callback)) {}
  ~CallbackSink() override {
    if (!called_.load(std::memory_order_relaxed)) {
      vel::logLine("A response handler was destroyed without having been called");
    }
  }

  void answer(std::shared_ptr<VELResponse> response, std::optional<VELError> error) override {
    if (called_.exchange(true)) {
      vel::logLine("A response handler was called more than once; the later call is ignored");
      return;
    }
    if (callback_) callback_(std::move(response), std::move(error));
  }

 private:
  const VELResponseHandler::Callback callback_;
  std::atomic<bool> called_{false};
};

}  // namespace

VELResponseHandler::VELResponseHandler(Callback callback)
    : sink_(std::make_shared<CallbackSink>(std::move(callback))) {}

VELResponseHandler::VELResponseHandler(std::shared_ptr<vel::ResponseSink> sink)
    : sink_(std::move(sink)) {}

void VELResponseHandler::operator()(std::shared_ptr<VELResponse> response,
                                    std::optional<VELError> error) const {
  // A handler that was moved from has passed its one call on.
  if (sink_) sink_->answer(std::move(response), std::move(error));
}

void VELResponseHandler::whenClientLeaves(std::function<void()> callback) const {
  if (sink_) sink_->whenClientLeaves(sink_, std::move(callback));
}
