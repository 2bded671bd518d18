// Making, spelling and reading UUIDs.
#include "corvane/uuid.h"

#include <cstring>

#include "platform/ascii.h"
#include "platform/secure_random.h"

namespace {

constexpr size_t kTextLength = 36;

constexpr bool isHyphenIndex(size_t index) {
  return index == 8 || index == 13 || index == 18 || index == 23;
}

}  // namespace

VELUUID VELUUID::UUID() {
  std::array<uint8_t, 16> bytes;
  vel::secureRandomBytes(bytes.data(), bytes.size());
  // Version 4 and the variant of RFC 9562 §5.4.
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3F) | 0x80);
  return VELUUID(bytes);
}

std::optional<VELUUID> VELUUID::UUIDWithString(std::string_view string) {
  if (string.size() != kTextLength) return std::nullopt;
  std::array<uint8_t, 16> bytes{};
  size_t digits = 0;
  for (size_t i = 0; i < kTextLength; ++i) {
    if (isHyphenIndex(i)) {
      if (string[i] != '-') return std::nullopt;
      continue;
    }
    const int value = vel::hexValue(string[i]);
    if (value < 0) return std::nullopt;
    uint8_t& byte = bytes[digits++ / 2];
    byte = static_cast<uint8_t>((byte << 4) | value);
  }
  return VELUUID(bytes);
}

std::string VELUUID::UUIDString() const {
  std::string text(kTextLength, '-');
  size_t at = 0;
  for (const uint8_t byte : bytes_) {
    if (isHyphenIndex(at)) ++at;
    const auto digits = vel::hexDigits(byte, true);
    text[at++] = digits[0];
    text[at++] = digits[1];
  }
  return text;
}

size_t std::hash<VELUUID>::operator()(const VELUUID& uuid) const noexcept {
  // The bytes are random already, except where version and variant stand.
  uint64_t halves[2];
  std::memcpy(halves, uuid.bytes().data(), sizeof halves);
  return static_cast<size_t>(halves[0] ^ (halves[1] * 0x9E3779B97F4A7C15U));
}
