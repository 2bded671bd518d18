// Frames written down and read back plainly, byte by byte, with none of the library's code.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace vel::test {

struct PlainFrame {
  uint8_t opcode = 1;
  std::string payload;
  bool isMasked = true;
  bool isFinal = true;
  uint8_t reserved = 0;
  /// Bytes of the length: 0, 2 or 8; else the fewest that hold it.
  int lengthBytes = -1;
};

/// The frame's bytes.
std::string bytesOf(const PlainFrame& frame);
/// A frame as a client sends it.
std::string masked(uint8_t opcode, std::string_view payload);
/// A frame as a server sends it.
std::string unmasked(uint8_t opcode, std::string_view payload);
/// The payload of a close frame.
std::string closing(uint16_t code, std::string_view reason = {});
/// The whole frames that `bytes` begin with, as "OPCODE PAYLOAD"; keys of masked ones are taken off. What is
/// left comes last, as "rest N".
std::vector<std::string> framesIn(std::string_view bytes);

}  // namespace vel::test
