// The UTF-8 check, after the table of RFC 3629 §4.
#include "platform/utf8.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vel {
namespace {

/// The count of bytes from `at` on that are ASCII for certain: whole words only.
size_t asciiWords(std::string_view text, size_t at) noexcept {
  constexpr uint64_t kBeyond = 0x8080808080808080U;
  const size_t start = at;
  uint64_t words[4];
  for (; text.size() - at >= sizeof words; at += sizeof words) {
    std::memcpy(words, text.data() + at, sizeof words);
    if (((words[0] | words[1] | words[2] | words[3]) & kBeyond) != 0) break;
  }
  for (; text.size() - at >= sizeof words[0]; at += sizeof words[0]) {
    std::memcpy(words, text.data() + at, sizeof words[0]);
    if ((words[0] & kBeyond) != 0) break;
  }
  return at - start;
}

unsigned byteAt(std::string_view text, size_t at) noexcept {
  return static_cast<unsigned char>(text[at]);
}

bool isContinuation(unsigned byte) noexcept { return (byte & 0xC0) == 0x80; }

/// The length of the well-formed sequence of several bytes that begins at `at`, or 0.
size_t sequenceLength(std::string_view text, size_t at) noexcept {
  const unsigned lead = byteAt(text, at);
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (lead < 0xC2 || lead > 0xF4 || text.size() - at < length) return 0;
  const unsigned second = byteAt(text, at + 1);
  const unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (second < lowest || second > highest) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (!isContinuation(byteAt(text, at + i))) return 0;
  }
  return length;
}

}  // namespace

bool isASCII(std::string_view text) noexcept {
  for (size_t at = asciiWords(text, 0); at < text.size(); ++at) {
    if (byteAt(text, at) >= 0x80) return false;
  }
  return true;
}

bool isValidUTF8(std::string_view text) noexcept {
  size_t at = asciiWords(text, 0);
  while (at < text.size()) {
    if (byteAt(text, at) < 0x80) {
      ++at;
      continue;
    }
    const size_t length = sequenceLength(text, at);
    if (length == 0) return false;
    at += length;
    at += asciiWords(text, at);
  }
  return true;
}

}  // namespace vel
