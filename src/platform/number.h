// The one reader of numbers that come from outside. Each lenient grammar has a name; there is no
// errno and no locale.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace vel {

enum class NumberGrammar : uint8_t {
  /// Base 10 as `strtoull` reads it: white space, a sign (minus wraps modulo 2^64), digits, and anything
  /// after them.
  kDecimal,
  /// The same, but a minus sign makes it no number.
  kContentLength,
  /// Base 16 as `strtoull` reads it: white space, a sign, "0x", digits, and anything after them.
  kChunkSize,
};

/// The number at the start of `text`; none without digits and when it does not fit.
std::optional<uint64_t> parseNumber(std::string_view text, NumberGrammar grammar) noexcept;

enum class NumberOutcome : uint8_t { kNumber, kNoDigits, kOverflow };

/// Like `parseNumber`, telling why there is none. `value` becomes 0 without digits and the maximum when
/// the number does not fit.
NumberOutcome readNumber(std::string_view text, NumberGrammar grammar, uint64_t* value) noexcept;

}  // namespace vel
