#include "corvane/web_socket_message.h"

#include <cstring>
#include <memory>
#include <utility>

#include "corvane/error.h"
#include "platform/utf8.h"
#include "websocket/frame.h"

namespace {

// Larger messages are not copied to stand behind a head: each session sends its own head first.
constexpr size_t kFramed = 16 * 1024;

}  // namespace

VELWebSocketMessage::VELWebSocketMessage(bool isText, VELData payload, VELData serverFrame) noexcept
    : payload_(std::move(payload)), server_frame_(std::move(serverFrame)), is_text_(isText) {}

VELWebSocketMessage VELWebSocketMessage::framed(bool isText, const VELData& payload) {
  if (payload.length() > kFramed) return VELWebSocketMessage(isText, payload, VELData());
  const vel::FrameHead head(isText ? vel::kTextFrame : vel::kBinaryFrame, payload.length());
  const size_t head_length = head.view().size();
  const size_t length = head_length + payload.length();
  std::shared_ptr<uint8_t[]> bytes = std::make_shared_for_overwrite<uint8_t[]>(length);
  std::memcpy(bytes.get(), head.view().data(), head_length);
  if (!payload.isEmpty()) {
    std::memcpy(bytes.get() + head_length, payload.bytes(), payload.length());
  }
  const uint8_t* begin = bytes.get();
  VELData frame = VELData::dataWithOwner(std::move(bytes), begin, length);
  VELData framed_payload = frame.subdata(head_length, payload.length());
  return VELWebSocketMessage(isText, std::move(framed_payload), std::move(frame));
}

VELWebSocketMessage VELWebSocketMessage::textMessage(std::string_view text) {
  if (!vel::isValidUTF8(text)) {
    throw VELException(VELInvalidArgumentException, "Text of a WebSocket message must be UTF-8");
  }
  const VELData bytes = VELData::dataWithBorrowedBytes(text.data(), text.size());
  return framed(true, bytes);
}

VELWebSocketMessage VELWebSocketMessage::binaryMessage(const VELData& data) {
  return framed(false, data);
}

VELWebSocketMessage VELWebSocketMessage::receivedMessage(bool isText,
                                                         std::string_view bytes) noexcept {
  return VELWebSocketMessage(isText, VELData::dataWithBorrowedBytes(bytes.data(), bytes.size()),
                             VELData());
}
