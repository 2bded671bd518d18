// How a session reads: whole frames are taken from what is at hand, in place. What a frame still misses is
// waited for part by part: the rest of its length, its key, its payload, each with a time-out of its own.
#include <string>
#include <string_view>
#include <utility>

#include "corvane/web_socket.h"
#include "platform/queue_runner.h"
#include "platform/utf8.h"
#include "websocket/frame.h"
#include "websocket/habits.h"
#include "websocket/session.h"
#include "websocket/session_call.h"

using vel::FrameReading;
using vel::SessionRequest;

namespace {

// What waits to be sent while a client is still read from.
constexpr size_t kMostUnsent = 4 * 1024 * 1024;

}  // namespace

void VELWebSocket::socketDidReadData(VELSocket& /*socket*/, const VELData& /*data*/, int64_t tag) {
  if (tag != vel::kSessionTag) return;
  try {
    handleFrames();
  } catch (...) {
    // The queue may be one that others use, too, and then has no last resort of this session's.
    disconnect();
    throw;
  }
}

void VELWebSocket::waitForInput(uint64_t length, std::chrono::milliseconds timeout) {
  socket_->waitForInput(static_cast<size_t>(length), timeout, vel::kSessionTag);
}

// A client that sends and takes nothing would have its answers fill the memory: it is not read from until it has
// taken what waits for it, or a write has taken too long. Only servers do so: two ends that waited for each
// other to take something would wait forever.
bool VELWebSocket::hasMuchUnsent() const {
  return is_server_socket_ && socket_->unsentLength() > kMostUnsent;
}

// So much waits in line; a write of nothing is told when all before it has been taken.
void VELWebSocket::readOnOnceSent() {
  socket_->writeData(VELData(), vel::kFrameTimeout, vel::kSentTag);
}

void VELWebSocket::readOn() {
  if (state() != VELWebSocketState::kOpen) return;
  hasMuchUnsent() ? readOnOnceSent() : waitForInput(2, vel::kNoTimeout);
}

void VELWebSocket::socketDidWriteDataWithTag(VELSocket& /*socket*/, int64_t tag) {
  if (tag == vel::kSentTag && state() == VELWebSocketState::kOpen) waitForInput(2, vel::kNoTimeout);
}

void VELWebSocket::handleFrames() {
  std::shared_ptr<VELWebSocketDelegate> delegate;
  std::chrono::milliseconds next_timeout = vel::kNoTimeout;
  std::span<char> input = socket_->inputAtHand();
  while (state() == VELWebSocketState::kOpen) {
    const FrameReading frame =
        vel::readFrame({input.data(), input.size()}, {is_server_socket_, is_in_message_});
    if (frame.step == FrameReading::Step::kWrong) {
      return closeWithCode(vel::kProtocolError, std::string(textOf(frame.fault)));
    }
    if (frame.step == FrameReading::Step::kMore) {
      const bool has_begun = input.size() >= 2;
      return waitForInput(frame.needed, has_begun ? vel::kFrameTimeout : next_timeout);
    }
    const size_t length = static_cast<size_t>(frame.needed);
    char* payload = input.data() + (length - frame.payloadLength);
    if (frame.isMasked) {
      vel::mask(payload, payload, frame.payloadLength,
                vel::maskingKeyAt(payload - sizeof(vel::MaskingKey)));
    }
    // Before anybody is called who might end the socket; the bytes stay for this callback.
    socket_->takeInput(length);
    if (!handleFrame(frame, {payload, frame.payloadLength}, delegate)) return;
    if (frame.isFinal && hasMuchUnsent()) return readOnOnceSent();
    input = input.size() > length ? socket_->inputAtHand() : std::span<char>();
    next_timeout = frame.isFinal ? vel::kNoTimeout : vel::kFrameTimeout;
  }
}

// False when no further frame is to be handled now.
bool VELWebSocket::handleFrame(const FrameReading& frame, std::string_view payload,
                               std::shared_ptr<VELWebSocketDelegate>& delegate) {
  uint8_t opcode = frame.opcode;
  if (!vel::isControlFrame(opcode)) {
    const bool was_in_message = std::exchange(is_in_message_, !frame.isFinal);
    if (!frame.isFinal) return true;
    if (was_in_message) opcode = vel::opcodeOfFragments(opcode);
  }
  switch (opcode) {
    case vel::kTextFrame:
      if (!vel::isValidUTF8(payload)) {
        closeWithCode(vel::kInvalidPayload, "Invalid UTF-8 text frame data");
        return false;
      }
      return deliverMessage(true, payload, delegate);
    case vel::kBinaryFrame:
      return deliverMessage(false, payload, delegate);
    case vel::kCloseFrame:
      handleClose(payload);
      return false;
    case vel::kPingFrame:
      sendFrameWithOpcode(vel::kPongFrame,
                          VELData::dataWithBorrowedBytes(payload.data(), payload.size()));
      return true;
    case vel::kPongFrame:
      return true;
    default:
      closeWithCode(vel::kProtocolError, "Unexpected opcode: " + std::to_string(opcode));
      return false;
  }
}

// What the call made the session post comes before the next frame: reading goes on behind it.
bool VELWebSocket::deliverMessage(bool isText, std::string_view payload,
                                  std::shared_ptr<VELWebSocketDelegate>& delegate) {
  const bool has_changed = delegate_changed_.load(std::memory_order_relaxed) &&
                           delegate_changed_.exchange(false, std::memory_order_acquire);
  if (!delegate || has_changed) {
    delegate = this->delegate();
    if (!delegate) return true;
  }
  struct Delivering {
    std::atomic<const vel::ThreadRecord*>& thread;
    explicit Delivering(std::atomic<const vel::ThreadRecord*>& place) : thread(place) {
      thread.store(&vel::ThreadRecord::current(), std::memory_order_relaxed);
    }
    ~Delivering() { thread.store(nullptr, std::memory_order_relaxed); }
  };
  {
    const Delivering delivering(delivering_thread_);
    delegate->webSocketDidReceiveMessage(*this,
                                         VELWebSocketMessage::receivedMessage(isText, payload));
  }
  if (!std::exchange(has_posted_, false)) return true;
  vel::SessionCall::post(*this, {SessionRequest::Kind::kReadOn, {}});
  return false;
}

void VELWebSocket::handleClose(std::string_view payload) {
  if (payload.size() == 1) {
    return closeWithCode(vel::kProtocolError, "Close frame payload must be at least 2 bytes");
  }
  int64_t code = vel::kNoStatus;
  std::optional<std::string> reason;
  if (payload.size() >= 2) {
    const auto status = static_cast<uint16_t>((static_cast<uint8_t>(payload[0]) << 8) |
                                              static_cast<uint8_t>(payload[1]));
    code = status;
    if (!vel::admitsCloseStatus(status)) {
      return closeWithCode(vel::kProtocolError, "Close status is not allowed");
    }
  }
  if (payload.size() > 2) {
    reason = std::string(payload.substr(2));
    if (!vel::isValidUTF8(*reason)) {
      return closeWithCode(vel::kProtocolError, "Close reason MUST be valid UTF-8");
    }
  }
  endWith(code, std::move(reason), VELData::dataWithBorrowedBytes(payload.data(), payload.size()));
}
