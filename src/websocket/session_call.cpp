#include "websocket/session_call.h"

#include <new>
#include <utility>

#include "corvane/web_socket.h"
#include "platform/queue_runner.h"
#include "platform/recycled.h"

namespace vel {

SessionCall::SessionCall(std::shared_ptr<VELWebSocket> session, SessionRequest&& request) noexcept
    : QueueNode(Kind::kWork), session_(std::move(session)), request_(std::move(request)) {}

void SessionCall::post(VELWebSocket& session, SessionRequest request) {
  std::shared_ptr<VELWebSocket> keep = session.shared_from_this();
  auto* call =
      new (RecycledPlace<SessionCall>::take()) SessionCall(std::move(keep), std::move(request));
  session.calls_under_way_.fetch_add(1, std::memory_order_relaxed);
  QueueRunner::post(*session.queue_, *call);
}

void SessionCall::runNode(QueueFrame& /*frame*/) {
  const std::shared_ptr<VELWebSocket> session = session_;
  const SessionRequest request = std::move(request_);
  dropNode();
  session->calls_under_way_.fetch_sub(1, std::memory_order_relaxed);
  session->carryOut(request);
}

void SessionCall::dropNode() noexcept {
  this->~SessionCall();
  RecycledPlace<SessionCall>::giveBack(this);
}

}  // namespace vel
