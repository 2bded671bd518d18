// How a session sends. Calls are carried out on its queue, in their order.
//
// | Called                                        | Carried out                                        |
// |-----------------------------------------------|----------------------------------------------------|
// | inside the delegate's call for a message,      | in place: nothing can come between the call and    |
// | while no other call is on its way              | its end that a peer could tell from it             |
// | anywhere else                                  | in the queue's line                                |
#include <array>
#include <cstring>
#include <memory>
#include <utility>

#include "corvane/web_socket.h"
#include "platform/queue_runner.h"
#include "platform/secure_random.h"
#include "platform/utf8.h"
#include "websocket/frame.h"
#include "websocket/session.h"
#include "websocket/session_call.h"

using vel::SessionRequest;

namespace {

// A masked frame up to this length is put together on the stack.
constexpr size_t kOnStack = 1024;

vel::MaskingKey freshKey() {
  vel::MaskingKey key;
  try {
    vel::secureRandomBytes(key.data(), key.size());
  } catch (const VELException&) {
    throw VELException(VELInternalInconsistencyException,
                       "Unable to create randomized mask for websocket frame");
  }
  return key;
}

}  // namespace

void VELWebSocket::sendMessage(std::string_view text) {
  if (!vel::isValidUTF8(text)) {
    throw VELException(VELInvalidArgumentException, "Text of a WebSocket message must be UTF-8");
  }
  sendOrPost(vel::kTextFrame, VELData::dataWithBorrowedBytes(text.data(), text.size()));
}

void VELWebSocket::sendMessage(const char* text) {
  if (text == nullptr) return sendMessage(nullptr);
  sendMessage(std::string_view(text));
}

void VELWebSocket::sendMessage(const VELData& data) { sendOrPost(vel::kBinaryFrame, data); }

void VELWebSocket::sendMessage(std::nullptr_t) { sendOrPost(vel::kBinaryFrame, VELData()); }

void VELWebSocket::sendMessage(const VELWebSocketMessage& message) {
  sendOrPost(
      message.isText() ? vel::kTextFrame : vel::kBinaryFrame, message.data(),
      is_server_socket_ && !message.serverFrame().isEmpty() ? &message.serverFrame() : nullptr);
}

bool VELWebSocket::isDelivering() const noexcept {
  return delivering_thread_.load(std::memory_order_relaxed) == &vel::ThreadRecord::current();
}

void VELWebSocket::sendOrPost(uint8_t opcode, const VELData& payload, const VELData* serverFrame) {
  const bool is_delivering = isDelivering();
  if (is_delivering && calls_under_way_.load(std::memory_order_relaxed) == 0) {
    if (serverFrame == nullptr) return sendFrameWithOpcode(opcode, payload);
    return socket_->writeHeadAndData({}, *serverFrame, vel::kFrameTimeout, vel::kSessionTag);
  }
  if (is_delivering) has_posted_ = true;
  const auto kind = serverFrame ? SessionRequest::Kind::kSendFramed : SessionRequest::Kind::kSend;
  SessionRequest request{kind, serverFrame ? *serverFrame : payload};
  request.opcode = opcode;
  vel::SessionCall::post(*this, std::move(request));
}

void VELWebSocket::carryOut(const SessionRequest& request) {
  switch (request.kind) {
    case SessionRequest::Kind::kSend:
      return sendFrameWithOpcode(request.opcode, request.data);
    case SessionRequest::Kind::kSendFramed:
      return socket_->writeHeadAndData({}, request.data, vel::kFrameTimeout, vel::kSessionTag);
    case SessionRequest::Kind::kClose:
      return beginClosing(request.code,
                          request.hasReason ? std::optional(request.data.string()) : std::nullopt);
    case SessionRequest::Kind::kDisconnect:
      return disconnect();
    case SessionRequest::Kind::kReadOn:
      return readOn();
  }
}

void VELWebSocket::sendFrameWithOpcode(uint8_t opcode, const VELData& data) {
  if (!is_server_socket_) return sendMasked(opcode, data);
  const vel::FrameHead head(opcode, data.length());
  socket_->writeHeadAndData(head.view(), data, vel::kFrameTimeout, vel::kSessionTag);
}

void VELWebSocket::sendMasked(uint8_t opcode, const VELData& payload) {
  const vel::MaskingKey key = freshKey();
  const std::string_view bytes = payload.view();
  const vel::FrameHead head(opcode, bytes.size(), key);
  if (bytes.size() <= kOnStack) {
    std::array<char, kOnStack> masked;
    vel::mask(masked.data(), bytes.data(), bytes.size(), key);
    return socket_->writeHeadAndData(head.view(),
                                     VELData::dataWithBorrowedBytes(masked.data(), bytes.size()),
                                     vel::kFrameTimeout, vel::kSessionTag);
  }
  auto masked = std::make_shared_for_overwrite<char[]>(bytes.size());
  vel::mask(masked.get(), bytes.data(), bytes.size(), key);
  const char* begin = masked.get();
  socket_->writeHeadAndData(head.view(),
                            VELData::dataWithOwner(std::move(masked), begin, bytes.size()),
                            vel::kFrameTimeout, vel::kSessionTag);
}
