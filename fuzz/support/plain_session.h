// WebSocket frames and sessions, read plainly: what a session that echoes has to tell and to send.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vel::fuzz {

struct PlainFrameReading {
  std::string_view fault;
  // Bytes from the first one on without which nothing goes on.
  uint64_t needed = 2;
  bool isWhole = false;
  bool isFinal = false;
  uint8_t opcode = 0;
  std::string payload;
};

PlainFrameReading readPlainFrame(std::string_view bytes, bool isServer, bool isInMessage);

/// What a session tells its delegate and sends, as lines of `SessionEvents` and `framesIn`.
struct PlainSession {
  std::vector<std::string> events;
  std::vector<std::string> sent;
};

/// The session of a delegate that closes with 4000 on a message that begins with "c", and sends every other
/// one back; the peer goes away behind `bytes`.
PlainSession plainSession(bool isServer, std::string_view bytes);

}  // namespace vel::fuzz
