#include "http/response_call.h"

#include <utility>

#include "corvane/http_connection.h"
#include "http/connection_engine.h"
#include "platform/log.h"

namespace vel {

ResponseCall::~ResponseCall() {
  if (is_answered_.load(std::memory_order_relaxed)) return;
  // Once the connection has gone there is nobody left who waits.
  const std::shared_ptr<VELHTTPConnection> connection = connection_.lock();
  if (!connection) return;
  logLine("A response handler was destroyed without having been called");
  engine_.answerWillNotCome();
}

void ResponseCall::answer(std::shared_ptr<VELResponse> response, std::optional<VELError> error) {
  if (is_answered_.exchange(true, std::memory_order_acq_rel)) {
    logLine("A response handler was called more than once; the later call is ignored");
    return;
  }
  const std::shared_ptr<VELHTTPConnection> connection = connection_.lock();
  if (connection) engine_.takeAnswer(std::move(response), std::move(error));
}

void ResponseCall::whenClientLeaves(const std::shared_ptr<ResponseSink>& self,
                                    std::function<void()> callback) {
  const std::shared_ptr<VELHTTPConnection> connection = connection_.lock();
  if (!connection) return callback();
  engine_.whenClientLeaves(std::static_pointer_cast<ResponseCall>(self), std::move(callback));
}

}  // namespace vel
