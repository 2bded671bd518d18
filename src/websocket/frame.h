// Frames (RFC 6455 §5.2): their heads are read and written here, and payloads masked. No input or output.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vel {

enum Opcode : uint8_t {
  kContinuationFrame = 0,
  kTextFrame = 1,
  kBinaryFrame = 2,
  kCloseFrame = 8,
  kPingFrame = 9,
  kPongFrame = 10,
};

using MaskingKey = std::array<uint8_t, 4>;

/// Closing, asking or answering, not part of a message.
constexpr bool isControlFrame(uint8_t opcode) noexcept {
  return opcode == kCloseFrame || opcode == kPingFrame || opcode == kPongFrame;
}

/// What the reader of a frame stands in.
struct FrameContext {
  /// Frames come from a client: they have to be masked, else they must not be.
  bool isServer = true;
  /// A message has begun and not ended.
  bool isInMessage = false;
};

/// The rules that a peer can break by a frame's head.
enum class FrameFault : uint8_t {
  kNone,
  kMaskedToClient,
  kUnmaskedFromClient,
  kMessageInsideMessage,
  kContinuationOfNothing,
  kFragmentedControl,
  kReservedBits,
  kLongControl,
};
/// The reason with which a session ends because of it.
std::string_view textOf(FrameFault fault) noexcept;

/// What a reader has made of the bytes at hand.
struct FrameReading {
  enum class Step : uint8_t {
    kMore,  // `needed` bytes from the frame's first one on are needed to go on
    kFrame,  // a whole frame is there, `needed` bytes long, its payload the last `payloadLength` ones
    kWrong,  // the peer broke the rule `fault`
  };
  uint64_t needed = 2;
  size_t payloadLength = 0;
  Step step = Step::kMore;
  FrameFault fault = FrameFault::kNone;
  uint8_t opcode = 0;
  bool isFinal = false;
  /// The key stands before the payload.
  bool isMasked = false;
};

/// Reads the frame that begins with `bytes`. The first two bytes are judged before the next ones are asked
/// for; the length, the key and the payload are needed one after the other.
FrameReading readFrame(std::string_view bytes, FrameContext context) noexcept;

/// The head of a frame that is sent: always the only frame of its message, never with reserved bits.
class FrameHead {
 public:
  FrameHead(uint8_t opcode, uint64_t payload_length) noexcept;
  FrameHead(uint8_t opcode, uint64_t payload_length, const MaskingKey& key) noexcept;
  std::string_view view() const noexcept { return {bytes_.data(), length_}; }

 private:
  std::array<char, 14> bytes_;
  size_t length_;
};

/// The key at `bytes`.
MaskingKey maskingKeyAt(const char* bytes) noexcept;
/// Puts `length` bytes of `from` at `to`, masked or unmasked with `key`. The two may be the same place.
void mask(char* to, const char* from, size_t length, const MaskingKey& key) noexcept;

}  // namespace vel
