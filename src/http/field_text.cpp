// Classes of bytes, sixteen or eight at a time. The last step goes over some bytes a second time, so
// that nothing beyond the text is read or written.
#include "http/field_text.h"

#include <bit>
#include <cstdint>
#include <cstring>

#include "platform/ascii.h"

namespace vel {
namespace {

// Compared as signed numbers, since that is the comparison that processors have, and added as unsigned
// ones, which may wrap.
using Bytes16 = signed char __attribute__((vector_size(16)));
using Unsigned16 = unsigned char __attribute__((vector_size(16)));

constexpr uint64_t kEach = 0x0101010101010101;
constexpr uint64_t kHighBits = kEach * 0x80;

template <typename T>
T load(const char* at) noexcept {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

template <typename T>
void store(T value, char* at) noexcept {
  std::memcpy(at, &value, sizeof value);
}

bool isForbidden(char c) noexcept { return isControl(c) && c != '\t'; }

Bytes16 added(Bytes16 bytes, unsigned char number) noexcept {
  return reinterpret_cast<Bytes16>(reinterpret_cast<Unsigned16>(bytes) + number);
}

/// All bits of each visible ASCII character and the blank, 0x20 to 0x7E: one more than these is above
/// 0x20 and not yet negative.
Bytes16 plainCharacters(Bytes16 bytes) noexcept { return added(bytes, 1) > 0x20; }

/// All bits of each letter and hyphen, of which the usual names consist: five more than "z" is 0x7F.
Bytes16 lettersAndHyphens(Bytes16 bytes) noexcept {
  constexpr unsigned char kShift = 0x7F - 'z';
  return (added(bytes | 0x20, kShift) > 'a' - 1 + kShift) | (bytes == '-');
}

bool all(Bytes16 bytes) noexcept {
  uint64_t halves[2];
  std::memcpy(halves, &bytes, sizeof halves);
  return (halves[0] & halves[1]) == UINT64_MAX;
}

/// The same in one register: the high bit of each such character. No byte carries into the next, as the
/// sums stay below 0x100.
uint64_t plainCharacters(uint64_t bytes) noexcept {
  const uint64_t ascii = bytes & (kEach * 0x7F);
  const uint64_t from_blank = ascii + kEach * 0x60;
  const uint64_t is_delete = ascii + kEach;
  return from_blank & ~is_delete & ~bytes & kHighBits;
}

/// Whether all eight are letters or hyphens, by sums in the same way.
bool areLettersOrHyphens(uint64_t bytes) noexcept {
  const uint64_t ascii = bytes & (kEach * 0x7F);
  const uint64_t lower = ascii | (kEach * 0x20);
  const uint64_t from_a = lower + kEach * (0x80 - 'a');
  const uint64_t beyond_z = lower + kEach * (0x7F - 'z');
  const uint64_t no_hyphen = (ascii ^ (kEach * '-')) + kEach * 0x7F;
  return (((from_a & ~beyond_z) | ~no_hyphen) & ~bytes & kHighBits) == kHighBits;
}

/// Whether every byte is a plain character; copies them on the way if so asked.
template <bool kCopy>
bool isPlain(std::string_view text, char* out) noexcept {
  const char* const in = text.data();
  const size_t size = text.size();
  const auto take = [&]<typename T>(T, size_t at) {
    const T bytes = load<T>(in + at);
    if constexpr (kCopy) store(bytes, out + at);
    return bytes;
  };
  if (size >= 16) {
    Bytes16 plain = plainCharacters(take(Bytes16(), size - 16));
    for (size_t at = 0; at + 16 < size; at += 16) plain &= plainCharacters(take(Bytes16(), at));
    return all(plain);
  }
  if (size >= 8) {
    return (plainCharacters(take(uint64_t(), 0)) & plainCharacters(take(uint64_t(), size - 8))) ==
           kHighBits;
  }
  if (size >= 4) {
    const uint64_t head = take(uint32_t(), 0);
    return plainCharacters(head << 32 | take(uint32_t(), size - 4)) == kHighBits;
  }
  bool plain = true;
  for (size_t at = 0; at < size; ++at) plain &= !isControl(take(char(), at));
  return plain;
}

/// The slow answer, for a text with tabs, bytes beyond ASCII or what is forbidden.
bool isAllowed(std::string_view text) noexcept {
  for (const char c : text) {
    if (isForbidden(c)) return false;
  }
  return true;
}

/// The length of the usual name at the start of 16 bytes; 16 if it may go on.
size_t usualNameLength(const char* bytes) noexcept {
  const Bytes16 usual = lettersAndHyphens(load<Bytes16>(bytes));
  uint64_t halves[2];
  std::memcpy(halves, &usual, sizeof halves);
  if (halves[0] != UINT64_MAX) return static_cast<size_t>(std::countr_one(halves[0])) / 8;
  return 8 + static_cast<size_t>(std::countr_one(halves[1])) / 8;
}

}  // namespace

size_t tokenLength(std::string_view text) noexcept {
  size_t length = 0;
  if constexpr (std::endian::native == std::endian::little) {
    if (text.size() >= 16) length = usualNameLength(text.data());
  }
  while (length < text.size() && isTokenCharacter(text[length])) ++length;
  return length;
}

bool isFieldName(std::string_view text) noexcept {
  if (text.size() >= 8 && text.size() <= 16 && areLettersOrHyphens(load<uint64_t>(text.data())) &&
      areLettersOrHyphens(load<uint64_t>(text.data() + text.size() - 8))) {
    return true;
  }
  return isToken(text);
}

bool isFieldText(std::string_view text) noexcept {
  return isPlain<false>(text, nullptr) || isAllowed(text);
}

bool copyFieldText(std::string_view text, char* out) noexcept {
  return isPlain<true>(text, out) || isAllowed(text);
}

void copyCleanFieldText(std::string_view text, char* out) noexcept {
  for (const char c : text) *out++ = isForbidden(c) ? ' ' : c;
}

}  // namespace vel
