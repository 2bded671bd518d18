// Decodes well-formed UTF-8 (RFC 3629) and writes it anew.
#include "responses/text_encoding.h"

#include <cstdint>

#include "corvane/text_encoding.h"
#include "platform/utf8.h"

namespace vel {

namespace {

/// Takes the first character off the front of `text`, which is valid and not empty.
uint32_t takeCharacter(std::string_view* text) {
  const auto byteAt = [text](size_t index) { return static_cast<uint8_t>((*text)[index]); };
  const uint8_t lead = byteAt(0);
  size_t length = 1;
  uint32_t character = lead;
  if (lead >= 0xF0) {
    length = 4;
    character = lead & 0x07U;
  } else if (lead >= 0xE0) {
    length = 3;
    character = lead & 0x0FU;
  } else if (lead >= 0xC0) {
    length = 2;
    character = lead & 0x1FU;
  }
  for (size_t i = 1; i < length; ++i) character = (character << 6) | (byteAt(i) & 0x3FU);
  text->remove_prefix(length);
  return character;
}

std::optional<std::string> encodedAsLatin1(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  while (!text.empty()) {
    const uint32_t character = takeCharacter(&text);
    if (character > 0xFF) return std::nullopt;
    bytes.push_back(static_cast<char>(character));
  }
  return bytes;
}

void appendUnit(uint32_t unit, std::string* bytes) {
  bytes->push_back(static_cast<char>(unit & 0xFF));
  bytes->push_back(static_cast<char>(unit >> 8));
}

std::string encodedAsUTF16(std::string_view text) {
  std::string bytes;
  bytes.reserve(2 * (text.size() + 1));
  appendUnit(0xFEFF, &bytes);
  while (!text.empty()) {
    const uint32_t character = takeCharacter(&text);
    if (character < 0x10000) {
      appendUnit(character, &bytes);
      continue;
    }
    appendUnit(0xD800 + ((character - 0x10000) >> 10), &bytes);
    appendUnit(0xDC00 + ((character - 0x10000) & 0x3FF), &bytes);
  }
  return bytes;
}

}  // namespace

std::optional<std::string> encodedText(std::string_view text, unsigned encoding) {
  if (!isValidUTF8(text)) return std::nullopt;
  switch (encoding) {
    case VELASCIIStringEncoding:
      return isASCII(text) ? std::optional<std::string>(text) : std::nullopt;
    case VELUTF8StringEncoding:
      return std::string(text);
    case VELISOLatin1StringEncoding:
      return encodedAsLatin1(text);
    case VELUTF16StringEncoding:
      return encodedAsUTF16(text);
    default:
      return std::nullopt;
  }
}

}  // namespace vel
