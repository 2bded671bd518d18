// Tests of the number reader, with strtoull itself as the oracle.
#include "platform/number.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "corvane/number.h"
#include "support/guarded_buffer.h"

namespace vel {
namespace {

using test::GuardedBuffer;

/// Every way to put a start, digits and an end together.
std::vector<std::string> samples() {
  const std::vector<std::string> starts = {"",   " ",    "\t\n\v\f\r ", "+", "-",   " -", "+-",
                                           "- ", "\xA0", "x",           ",", "0x+", "0x"};
  const std::vector<std::string> digits = {"",
                                           "0",
                                           "42",
                                           "00000000000000000000000000007",
                                           "18446744073709551615",
                                           "18446744073709551616",
                                           "99999999999999999999999",
                                           "ffffffffffffffff",
                                           "10000000000000000",
                                           "0x",
                                           "0X1f",
                                           "0xg",
                                           "0x0x1",
                                           "DeadBeef"};
  const std::vector<std::string> ends = {"", " ", "abc", "g", ";name=value", "\r\n", ".5", "-"};
  std::vector<std::string> all;
  for (const std::string& start : starts) {
    for (const std::string& digit : digits) {
      for (const std::string& end : ends) all.push_back(start + digit + end);
    }
  }
  return all;
}

void expectLikeStandardLibrary(const std::string& text, NumberGrammar grammar, int base) {
  char* end = nullptr;
  errno = 0;
  const uint64_t expected = std::strtoull(text.c_str(), &end, base);
  const NumberOutcome outcome = end == text.c_str() ? NumberOutcome::kNoDigits
                                : errno == ERANGE   ? NumberOutcome::kOverflow
                                                    : NumberOutcome::kNumber;
  const GuardedBuffer buffer(text);
  uint64_t value = 7;
  EXPECT_EQ(readNumber(buffer.view(), grammar, &value), outcome) << '"' << text << '"';
  EXPECT_EQ(value, expected) << '"' << text << '"';
}

TEST(NumberReader, ReadsLikeTheStandardLibrary) {
  for (const std::string& text : samples()) {
    expectLikeStandardLibrary(text, NumberGrammar::kDecimal, 10);
    expectLikeStandardLibrary(text, NumberGrammar::kChunkSize, 16);
  }
}

TEST(NumberReader, ContentLengthRefusesOnlyAMinusSign) {
  for (const std::string& text : samples()) {
    const size_t first = text.find_first_not_of(" \t\n\v\f\r");
    const bool minus = first != std::string::npos && text[first] == '-';
    const auto decimal = parseNumber(text, NumberGrammar::kDecimal);
    EXPECT_EQ(parseNumber(text, NumberGrammar::kContentLength), minus ? std::nullopt : decimal)
        << '"' << text << '"';
  }
}

TEST(ParseString, TellsWhetherThereIsANumber) {
  constexpr uint64_t kUntouched = 7;
  const struct {
    std::optional<std::string_view> text;
    bool parsed;
    uint64_t value;
  } cases[] = {
      {"42", true, 42},
      {"42abc", true, 42},
      {" 42", true, 42},
      {"-1", true, UINT64_MAX},
      {"abc", false, 0},
      {"", false, 0},
      {"-", false, 0},
      {"18446744073709551616", false, UINT64_MAX},
      {"-18446744073709551616", false, UINT64_MAX},
      {std::nullopt, false, kUntouched},
  };
  for (const auto& c : cases) {
    uint64_t value = kUntouched;
    EXPECT_EQ(vel_parseString(c.text, &value), c.parsed) << c.text.value_or("(none)");
    EXPECT_EQ(value, c.value) << c.text.value_or("(none)");
  }
}

}  // namespace
}  // namespace vel
