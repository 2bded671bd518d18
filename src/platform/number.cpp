// The number reader and its grammars.
#include "platform/number.h"

#include <cstddef>
#include <limits>

#include "corvane/number.h"
#include "platform/ascii.h"

namespace vel {
namespace {

constexpr uint64_t kMaximum = std::numeric_limits<uint64_t>::max();

/// Reads digits of `base` into `value`, which is zero at first.
NumberOutcome readDigits(std::string_view text, unsigned base, uint64_t* value) noexcept {
  const uint64_t limit = kMaximum / base;
  uint64_t sum = 0;
  bool overflow = false;
  size_t count = 0;
  for (; count < text.size(); ++count) {
    const int digit = hexValue(text[count]);
    if (digit < 0 || static_cast<unsigned>(digit) >= base) break;
    const auto addend = static_cast<uint64_t>(digit);
    overflow = overflow || sum > limit || (sum == limit && addend > kMaximum - limit * base);
    if (!overflow) sum = sum * base + addend;
  }
  if (count == 0) return NumberOutcome::kNoDigits;
  *value = overflow ? kMaximum : sum;
  return overflow ? NumberOutcome::kOverflow : NumberOutcome::kNumber;
}

/// A prefix counts only before a digit; "0x" and anything else is the digit 0.
bool hasHexPrefix(std::string_view text) noexcept {
  return text.size() > 2 && text[0] == '0' && toLower(text[1]) == 'x' && hexValue(text[2]) >= 0;
}

}  // namespace

NumberOutcome readNumber(std::string_view text, NumberGrammar grammar, uint64_t* value) noexcept {
  *value = 0;
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  const bool minus = !text.empty() && text.front() == '-';
  if (minus && grammar == NumberGrammar::kContentLength) return NumberOutcome::kNoDigits;
  if (minus || (!text.empty() && text.front() == '+')) text.remove_prefix(1);

  const bool hexadecimal = grammar == NumberGrammar::kChunkSize;
  if (hexadecimal && hasHexPrefix(text)) text.remove_prefix(2);
  const NumberOutcome outcome = readDigits(text, hexadecimal ? 16 : 10, value);
  if (minus && outcome == NumberOutcome::kNumber) *value = 0 - *value;
  return outcome;
}

std::optional<uint64_t> parseNumber(std::string_view text, NumberGrammar grammar) noexcept {
  uint64_t value = 0;
  if (readNumber(text, grammar, &value) != NumberOutcome::kNumber) return std::nullopt;
  return value;
}

}  // namespace vel

bool vel_parseString(std::optional<std::string_view> string, uint64_t* value) {
  if (!string) return false;
  return vel::readNumber(*string, vel::NumberGrammar::kDecimal, value) ==
         vel::NumberOutcome::kNumber;
}
