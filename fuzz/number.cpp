// The number reader, every grammar of it, against strtoull and against a reading digit by digit.
#include "platform/number.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "corvane/number.h"
#include "http/habits.h"
#include "platform/utf8.h"
#include "support/require.h"

namespace vel::fuzz {
namespace {

struct Reading {
  NumberOutcome outcome;
  uint64_t value;

  friend bool operator==(const Reading&, const Reading&) = default;
};

Reading reading(std::string_view text, NumberGrammar grammar) {
  uint64_t value = 7;
  const NumberOutcome outcome = readNumber(text, grammar, &value);
  return {outcome, value};
}

/// As the standard library reads it, but that it reports no digits by where it stops.
Reading standardReading(const std::string& text, int base) {
  char* end = nullptr;
  errno = 0;
  const uint64_t value = std::strtoull(text.c_str(), &end, base);
  if (end == text.c_str()) return {NumberOutcome::kNoDigits, 0};
  return {errno == ERANGE ? NumberOutcome::kOverflow : NumberOutcome::kNumber, value};
}

/// A sum of 128 bits that stops growing once it is too large for 64. White space, sign and prefix
/// have been taken off.
Reading slowReading(std::string_view digits, unsigned base) {
  __extension__ unsigned __int128 sum = 0;
  size_t count = 0;
  for (const char c : digits) {
    const std::string_view all = "0123456789abcdefABCDEF";
    size_t digit = all.find(c);
    if (digit >= 16 && digit != std::string_view::npos) digit -= 6;
    if (digit >= base) break;
    ++count;
    if (sum <= UINT64_MAX) sum = sum * base + digit;
  }
  if (count == 0) return {NumberOutcome::kNoDigits, 0};
  if (sum > UINT64_MAX) return {NumberOutcome::kOverflow, UINT64_MAX};
  return {NumberOutcome::kNumber, static_cast<uint64_t>(sum)};
}

/// Whether the first character after white space is a minus sign.
bool hasMinus(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\n\v\f\r");
  return first != std::string_view::npos && text[first] == '-';
}

void checkNumbers(std::string_view text) {
  const Reading decimal = reading(text, NumberGrammar::kDecimal);
  const Reading size = reading(text, NumberGrammar::kChunkSize);
  // Both stop at a NUL: it is neither white space nor digit.
  const std::string terminated(text);
  require(decimal == standardReading(terminated, 10), "decimal as strtoull reads it");
  require(size == standardReading(terminated, 16), "chunk size as strtoull reads it");
  if (!text.empty() && std::string_view("0123456789").find(text[0]) != std::string_view::npos) {
    require(decimal == slowReading(text, 10), "decimal as summed up");
  }
  if (text.substr(0, 2) != "0x" && text.substr(0, 2) != "0X") {
    const Reading slow = slowReading(text, 16);
    require(slow.outcome == NumberOutcome::kNoDigits || size == slow, "chunk size as summed up");
  }

  const Reading length = reading(text, NumberGrammar::kContentLength);
  require(length == (hasMinus(text) ? Reading{NumberOutcome::kNoDigits, 0} : decimal),
          "a content length differs from a decimal by its minus sign only");

  uint64_t value = 7;
  const bool parsed = vel_parseString(text, &value);
  require(parsed == (decimal.outcome == NumberOutcome::kNumber) && value == decimal.value,
          "vel_parseString reads decimals");
  const auto admitted = admittedChunkSize(text);
  require(admitted.has_value() == (isValidUTF8(text) && size.outcome == NumberOutcome::kNumber),
          "a chunk size is admitted when it is text and a number");
  require(!admitted || *admitted == size.value, "the chunk size that is admitted");
}

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vel::fuzz::checkNumbers({reinterpret_cast<const char*>(data), size});
  return 0;
}
