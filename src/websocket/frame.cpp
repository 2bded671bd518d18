#include "websocket/frame.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

#include "websocket/habits.h"

namespace vel {
namespace {

constexpr uint8_t kFinalBit = 0x80;
constexpr uint8_t kReservedBits = 0x70;
constexpr uint8_t kOpcodeBits = 0x0F;
constexpr uint8_t kMaskBit = 0x80;
constexpr uint8_t kLengthBits = 0x7F;
// Codes in place of a length: 2 or 8 bytes with it follow.
constexpr uint8_t kLength16 = 126;
constexpr uint8_t kLength64 = 127;

uint8_t byteAt(std::string_view bytes, size_t at) noexcept {
  return static_cast<uint8_t>(bytes[at]);
}

// The `count` bytes from `at` on, most significant first.
uint64_t numberAt(std::string_view bytes, size_t at, size_t count) noexcept {
  uint64_t number = 0;
  for (size_t i = at; i < at + count; ++i) number = (number << 8) | byteAt(bytes, i);
  return number;
}

// What the first two bytes are refused for; the rules are asked in this order.
FrameFault faultOf(uint8_t first, uint8_t second, FrameContext context) noexcept {
  const bool is_masked = (second & kMaskBit) != 0;
  if (is_masked != context.isServer) {
    return is_masked ? FrameFault::kMaskedToClient : FrameFault::kUnmaskedFromClient;
  }
  if (!admitsReservedBits((first & kReservedBits) >> 4)) return FrameFault::kReservedBits;
  const uint8_t opcode = first & kOpcodeBits;
  if (isControlFrame(opcode)) {
    return (first & kFinalBit) != 0 ? FrameFault::kNone : FrameFault::kFragmentedControl;
  }
  if ((opcode != kContinuationFrame) != context.isInMessage) return FrameFault::kNone;
  return context.isInMessage ? FrameFault::kMessageInsideMessage
                             : FrameFault::kContinuationOfNothing;
}

// Two words at a time; the compilers that are built with know such a type.
using Block = uint64_t __attribute__((vector_size(16)));

}  // namespace

std::string_view textOf(FrameFault fault) noexcept {
  switch (fault) {
    case FrameFault::kNone:
      break;
    case FrameFault::kMaskedToClient:
      return "All data frames sent to a client must not be masked";
    case FrameFault::kUnmaskedFromClient:
      return "All data frames sent from a client must be masked";
    case FrameFault::kMessageInsideMessage:
      return "All data frames after the initial data frame must have opcode 0";
    case FrameFault::kContinuationOfNothing:
      return "Received data frame without an opcode";
    case FrameFault::kFragmentedControl:
      return "Control frames cannot be fragmented";
    case FrameFault::kReservedBits:
      return "Reserved bits must not be set";
    case FrameFault::kLongControl:
      return "Control frames cannot be longer than 125 bytes";
  }
  return {};
}

FrameReading readFrame(std::string_view bytes, FrameContext context) noexcept {
  FrameReading reading;
  if (bytes.size() < reading.needed) return reading;
  const uint8_t first = byteAt(bytes, 0);
  const uint8_t second = byteAt(bytes, 1);
  reading.isFinal = (first & kFinalBit) != 0;
  reading.opcode = first & kOpcodeBits;
  reading.isMasked = (second & kMaskBit) != 0;
  reading.fault = faultOf(first, second, context);
  if (reading.fault != FrameFault::kNone) {
    reading.step = FrameReading::Step::kWrong;
    return reading;
  }
  uint64_t length = second & kLengthBits;
  if (length >= kLength16) {
    const size_t length_bytes = length == kLength16 ? 2 : 8;
    reading.needed += length_bytes;
    if (bytes.size() < reading.needed) return reading;
    length = numberAt(bytes, 2, length_bytes);
  }
  if (isControlFrame(reading.opcode) && !admitsControlLength(length)) {
    reading.fault = FrameFault::kLongControl;
    reading.step = FrameReading::Step::kWrong;
    return reading;
  }
  if (reading.isMasked) reading.needed += sizeof(MaskingKey);
  if (bytes.size() < reading.needed) return reading;
  // No memory holds more than this: whoever announces it is waited for as long as for any other.
  constexpr uint64_t kMost = std::numeric_limits<size_t>::max();
  reading.needed += std::min(length, kMost - reading.needed);
  if (bytes.size() < reading.needed) return reading;
  reading.step = FrameReading::Step::kFrame;
  reading.payloadLength = static_cast<size_t>(length);
  return reading;
}

FrameHead::FrameHead(uint8_t opcode, uint64_t payload_length) noexcept : length_(2) {
  bytes_[0] = static_cast<char>(kFinalBit | opcode);
  if (payload_length < kLength16) {
    bytes_[1] = static_cast<char>(payload_length);
    return;
  }
  const bool is_short = payload_length <= std::numeric_limits<uint16_t>::max();
  bytes_[1] = static_cast<char>(is_short ? kLength16 : kLength64);
  for (int shift = is_short ? 8 : 56; shift >= 0; shift -= 8) {
    bytes_[length_++] = static_cast<char>(payload_length >> shift);
  }
}

FrameHead::FrameHead(uint8_t opcode, uint64_t payload_length, const MaskingKey& key) noexcept
    : FrameHead(opcode, payload_length) {
  bytes_[1] = static_cast<char>(bytes_[1] | kMaskBit);
  std::memcpy(bytes_.data() + length_, key.data(), key.size());
  length_ += key.size();
}

MaskingKey maskingKeyAt(const char* bytes) noexcept {
  MaskingKey key;
  std::memcpy(key.data(), bytes, key.size());
  return key;
}

void mask(char* to, const char* from, size_t length, const MaskingKey& key) noexcept {
  uint32_t word = 0;
  std::memcpy(&word, key.data(), sizeof word);
  const uint64_t two_words = word | (uint64_t{word} << 32);
  const Block keys{two_words, two_words};
  size_t at = 0;
  for (; length - at >= sizeof(Block); at += sizeof(Block)) {
    Block block;
    std::memcpy(&block, from + at, sizeof block);
    block ^= keys;
    std::memcpy(to + at, &block, sizeof block);
  }
  for (; at < length; ++at) to[at] = static_cast<char>(from[at] ^ key[at % key.size()]);
}

}  // namespace vel
