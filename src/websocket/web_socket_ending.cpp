// How a session ends.
//
// | State    | What happens                                          | Goes to  |
// |----------|-------------------------------------------------------|----------|
// | kOpen    | a call to close, a broken rule: a close frame is sent  | kClosing |
// |          | a close frame came: it is sent back                    | kClosing |
// |          | the socket has disconnected                            | kClosed  |
// | kClosing | calls to close do nothing, what is sent is dropped     | kClosing |
// |          | the socket has disconnected                            | kClosed  |
// | kClosed  | the delegate and the server have been told             |          |
#include <cstdint>
#include <string>
#include <utility>

#include "corvane/server.h"
#include "corvane/web_socket.h"
#include "platform/utf8.h"
#include "websocket/frame.h"
#include "websocket/habits.h"
#include "websocket/session.h"
#include "websocket/session_call.h"

using vel::SessionRequest;

namespace {

// An end that the peer made without a close frame is reported as status 1006, not as an error of the socket.
bool isEndByPeer(const VELError& error) {
  return error.domain() == VELSocketErrorDomain && error.code() == kVELSocketClosed;
}

}  // namespace

void VELWebSocket::close() { closeWithCode(vel::kNormalClosure); }

void VELWebSocket::closeWhenIdle() { closeWithCode(vel::kGoingAway); }

void VELWebSocket::closeWithCode(int64_t code, std::optional<std::string> reason) {
  if (reason && !vel::isValidUTF8(*reason)) {
    throw VELException(VELInvalidArgumentException,
                       "The reason for closing a WebSocket must be UTF-8");
  }
  if (isDelivering()) has_posted_ = true;
  SessionRequest request{SessionRequest::Kind::kClose, {}};
  request.code = code;
  request.hasReason = reason.has_value();
  if (reason) request.data = VELData(std::move(*reason));
  vel::SessionCall::post(*this, std::move(request));
}

void VELWebSocket::closeAtOnce() {
  if (isDelivering()) has_posted_ = true;
  vel::SessionCall::post(*this, {SessionRequest::Kind::kDisconnect, {}});
}

vel::SessionEnding& VELWebSocket::ending() {
  if (!ending_) ending_ = std::make_unique<vel::SessionEnding>();
  if (is_attached_ && state() != VELWebSocketState::kClosed) ending_->held = shared_from_this();
  return *ending_;
}

void VELWebSocket::beginClosing(int64_t code, std::optional<std::string> reason) {
  if (state() != VELWebSocketState::kOpen) return;
  const uint16_t status = vel::sentCloseStatus(code);
  std::string payload{static_cast<char>(status >> 8), static_cast<char>(status & 0xFF)};
  if (reason) payload += *reason;
  // The peer answers with a close frame, which nobody is going to read.
  socket_->expectUnreadInput();
  endWith(code, std::move(reason), VELData(std::move(payload)));
}

// The last frame; what was sent before it goes out, too.
void VELWebSocket::endWith(int64_t code, std::optional<std::string> reason,
                           const VELData& closePayload) {
  vel::SessionEnding& end = ending();
  end.code = code;
  end.reason = std::move(reason);
  state_.store(VELWebSocketState::kClosing, std::memory_order_relaxed);
  sendFrameWithOpcode(vel::kCloseFrame, closePayload);
  socket_->disconnectAfterWriting();
}

void VELWebSocket::disconnect() {
  if (state() == VELWebSocketState::kClosed) return;
  ending();
  socket_->disconnect();
}

// What was thrown has been logged. It interrupted the session, which cannot go on.
void VELWebSocket::workDidThrow(const std::exception_ptr& /*exception*/) { disconnect(); }

void VELWebSocket::socketDidDisconnect(VELSocket& /*socket*/,
                                       const std::optional<VELError>& error) {
  if (state() == VELWebSocketState::kClosed) return;
  const std::shared_ptr<VELWebSocket> self = shared_from_this();
  const std::unique_ptr<vel::SessionEnding> end =
      ending_ ? std::move(ending_) : std::make_unique<vel::SessionEnding>();
  state_.store(VELWebSocketState::kClosed);
  // The server is told even if the delegate throws.
  struct Farewell {
    const std::shared_ptr<VELWebSocket>& session;
    ~Farewell() {
      if (const auto server = session->server()) server->connectionDidClose(session);
    }
  } farewell{self};
  const VELError told = error && !isEndByPeer(*error) ? *error
                                                      : VELError(VELWebSocketErrorDomain, end->code,
                                                                 end->reason.value_or(""));
  if (const std::shared_ptr<VELWebSocketDelegate> delegate = this->delegate()) {
    delegate->webSocketDidCloseWithError(*this, told);
  } else if (!is_started_.load()) {
    ending_ = std::make_unique<vel::SessionEnding>();
    ending_->untold = told;
  }
}

void VELWebSocket::tellEndThatNobodyHeard() {
  const std::unique_ptr<vel::SessionEnding> end = std::move(ending_);
  const std::shared_ptr<VELWebSocketDelegate> delegate = this->delegate();
  if (end && end->untold && delegate) delegate->webSocketDidCloseWithError(*this, *end->untold);
}
