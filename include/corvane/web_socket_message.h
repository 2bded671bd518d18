// VELWebSocketMessage: one text or binary message, as a session receives it, or framed once for many.
#pragma once

#include <string_view>

#include "corvane/data.h"
#include "corvane/export.h"

/// A whole message.
///
/// ```cpp
/// VELWebSocketMessage news = VELWebSocketMessage::textMessage("It is noon.");
/// bool text = news.isText();
/// size_t length = news.text().size();
/// ```
/// Owner:   a received message lends its bytes for the call; a copy owns bytes of its own. Copies of a
///          message that was made here share its bytes.
/// Queue:   any; a message never changes.
class CORVANE_EXPORT VELWebSocketMessage {
 public:
  /// A text message for any number of sessions: bytes and frame are made once, and server sessions send
  /// them from where they are.
  /// Errors:  raises an invalid-argument exception for a text that is not UTF-8.
  static VELWebSocketMessage textMessage(std::string_view text);
  /// The same with `data`.
  static VELWebSocketMessage binaryMessage(const VELData& data);
  /// A message that has come, over bytes that are lent. For the library's own use.
  static VELWebSocketMessage receivedMessage(bool isText, std::string_view bytes) noexcept;

  /// Whether it is a text, which is UTF-8 then; else bytes.
  bool isText() const noexcept { return is_text_; }
  /// The text; for a binary message its bytes as they are.
  /// Owner:   valid as long as the message.
  std::string_view text() const { return payload_.view(); }
  /// The bytes, those of a text too.
  const VELData& data() const noexcept { return payload_; }

  /// The whole frame as a server sends it; no bytes when none was made. For the library's own use.
  const VELData& serverFrame() const noexcept { return server_frame_; }

 private:
  VELWebSocketMessage(bool isText, VELData payload, VELData serverFrame) noexcept;
  static VELWebSocketMessage framed(bool isText, const VELData& payload);

  VELData payload_;
  VELData server_frame_;
  bool is_text_;
};
