#include "websocket/plain_frame.h"

namespace vel::test {
namespace {

constexpr std::string_view kKey = "\x37\xFA\x21\x3D";

uint64_t numberOf(std::string_view bytes) {
  uint64_t number = 0;
  for (const char byte : bytes) number = number * 256 + static_cast<uint8_t>(byte);
  return number;
}

}  // namespace

std::string bytesOf(const PlainFrame& frame) {
  const size_t length = frame.payload.size();
  int length_bytes = frame.lengthBytes;
  if (length_bytes < 0) length_bytes = length < 126 ? 0 : length < 65536 ? 2 : 8;
  std::string bytes;
  bytes += static_cast<char>((frame.isFinal ? 0x80 : 0) | frame.reserved << 4 | frame.opcode);
  const size_t code = length_bytes == 0 ? length : length_bytes == 2 ? 126 : 127;
  bytes += static_cast<char>((frame.isMasked ? 0x80 : 0) | code);
  for (int i = length_bytes - 1; i >= 0; --i) bytes += static_cast<char>(length >> (8 * i));
  if (!frame.isMasked) return bytes + frame.payload;
  bytes += kKey;
  for (size_t i = 0; i < length; ++i) {
    bytes += static_cast<char>(frame.payload[i] ^ kKey[i % kKey.size()]);
  }
  return bytes;
}

std::string masked(uint8_t opcode, std::string_view payload) {
  return bytesOf({opcode, std::string(payload)});
}

std::string unmasked(uint8_t opcode, std::string_view payload) {
  return bytesOf({opcode, std::string(payload), false});
}

std::string closing(uint16_t code, std::string_view reason) {
  std::string payload;
  payload += static_cast<char>(code / 256);
  payload += static_cast<char>(code % 256);
  payload += reason;
  return payload;
}

std::vector<std::string> framesIn(std::string_view bytes) {
  std::vector<std::string> frames;
  while (bytes.size() >= 2) {
    const int code = bytes[1] & 0x7F;
    const bool is_masked = (bytes[1] & 0x80) != 0;
    const size_t length_bytes = code < 126 ? 0 : code == 126 ? 2 : 8;
    const size_t head = 2 + length_bytes + (is_masked ? 4 : 0);
    if (bytes.size() < head) break;
    const uint64_t length =
        length_bytes == 0 ? static_cast<uint64_t>(code) : numberOf(bytes.substr(2, length_bytes));
    if (bytes.size() - head < length) break;
    std::string payload(bytes.substr(head, length));
    for (size_t i = 0; is_masked && i < length; ++i) payload[i] ^= bytes[head - 4 + i % 4];
    frames.push_back(std::to_string(static_cast<uint8_t>(bytes[0]) - 0x80) + " " + payload);
    bytes.remove_prefix(head + length);
  }
  if (!bytes.empty()) frames.push_back("rest " + std::to_string(bytes.size()));
  return frames;
}

}  // namespace vel::test
