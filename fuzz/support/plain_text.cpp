#include "support/plain_text.h"

#include <cctype>
#include <cstddef>
#include <cstdint>

namespace vel::fuzz {
namespace {

std::string writtenAsUTF8(uint32_t code) {
  std::string out;
  const auto put = [&out](uint32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0 | code >> 6);
    put(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    put(0xE0 | code >> 12);
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  } else {
    put(0xF0 | code >> 18);
    put(0x80 | (code >> 12 & 0x3F));
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  }
  return out;
}

/// How many bytes a character has that begins with `lead`, and the bits of its code in there.
size_t lengthOf(uint8_t lead, uint32_t* bits) {
  if (lead < 0x80) return *bits = lead, 1;
  if (lead >> 5 == 6) return *bits = lead & 0x1FU, 2;
  if (lead >> 4 == 14) return *bits = lead & 0x0FU, 3;
  if (lead >> 3 == 30) return *bits = lead & 0x07U, 4;
  return 0;
}

}  // namespace

Decoded plainlyDecoded(std::string_view text, bool plus_is_blank) {
  Decoded result;
  while (!text.empty()) {
    const char c = text[0];
    if (c == '%' && text.size() > 2 && std::isxdigit(static_cast<unsigned char>(text[1])) &&
        std::isxdigit(static_cast<unsigned char>(text[2]))) {
      const std::string digits(text.substr(1, 2));
      result.text.push_back(static_cast<char>(std::stoi(digits, nullptr, 16)));
      result.has_escapes = true;
      text.remove_prefix(3);
      continue;
    }
    if (c == '%') result.is_good = false;
    result.text.push_back(c == '+' && plus_is_blank ? ' ' : c);
    text.remove_prefix(1);
  }
  return result;
}

bool isPlainlyUTF8(std::string_view text) {
  while (!text.empty()) {
    uint32_t code = 0;
    const size_t length = lengthOf(static_cast<uint8_t>(text[0]), &code);
    if (length == 0 || length > text.size()) return false;
    for (size_t i = 1; i < length; ++i) {
      const auto byte = static_cast<uint8_t>(text[i]);
      if (byte >> 6 != 2) return false;
      code = code << 6 | (byte & 0x3FU);
    }
    if (code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) return false;
    if (writtenAsUTF8(code) != text.substr(0, length)) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::vector<std::string_view> plainlySplit(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i < text.size() && text[i] != separator) continue;
    parts.push_back(text.substr(start, i - start));
    start = i + 1;
  }
  return parts;
}

}  // namespace vel::fuzz
