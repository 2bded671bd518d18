// Strings are the only part of JSON in which anything can go wrong: escapes and malformed UTF-8.
#include "json.h"

#include <cstddef>

namespace {

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

bool isBetween(std::string_view text, size_t index, unsigned char low, unsigned char high) {
  if (index >= text.size()) return false;
  const auto byte = static_cast<unsigned char>(text[index]);
  return byte >= low && byte <= high;
}

struct Sequence {
  size_t length;
  bool isValid;
};

/// The sequence at the start of `text`, which is not empty: a whole character, or the longest start of
/// one (Unicode 15 §3.9, table 3-7).
Sequence firstSequence(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return {1, true};
  if (lead < 0xC2 || lead > 0xF4) return {1, false};
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  // Overlong forms, surrogates and what lies beyond U+10FFFF show in the second byte.
  const unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (!isBetween(text, 1, low, high)) return {1, false};
  for (size_t index = 2; index < length; ++index) {
    if (!isBetween(text, index, 0x80, 0xBF)) return {index, false};
  }
  return {length, true};
}

void appendASCII(std::string& json, char c) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  if (c == '"' || c == '\\') {
    json += '\\';
    json += c;
  } else if (byte < 0x20 || byte == 0x7F) {
    json += "\\u00";
    json += kDigits[byte >> 4];
    json += kDigits[byte & 15];
  } else {
    json += c;
  }
}

}  // namespace

void appendJSONString(std::string& json, std::string_view text) {
  json += '"';
  while (!text.empty()) {
    const Sequence sequence = firstSequence(text);
    if (!sequence.isValid) {
      json += kReplacementCharacter;
    } else if (sequence.length == 1) {
      appendASCII(json, text[0]);
    } else {
      json += text.substr(0, sequence.length);
    }
    text.remove_prefix(sequence.length);
  }
  json += '"';
}
