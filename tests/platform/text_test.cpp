// Tests of ASCII helpers, the UTF-8 check, percent-encoding, the reader of numbers, with strtoull itself
// as the oracle, and that of mime.types files.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "corvane/number.h"
#include "platform/ascii.h"
#include "platform/media_types.h"
#include "platform/number.h"
#include "platform/percent.h"
#include "platform/utf8.h"
#include "platform/words.h"
#include "support/guarded_buffer.h"

namespace vel {
namespace {

using test::GuardedBuffer;
using test::words;

TEST(Ascii, TokenCharactersAreThoseOfTheGrammar) {
  const std::string_view delimiters = "\"(),/:;<=>?@[\\]{} \t";
  for (int c = 0; c < 256; ++c) {
    const char character = static_cast<char>(c);
    const bool expected = c > 0x20 && c < 0x7F && delimiters.find(character) == std::string::npos;
    EXPECT_EQ(isTokenCharacter(character), expected) << c;
  }
  EXPECT_FALSE(isToken(""));
  EXPECT_FALSE(isToken("Content Type"));
  EXPECT_TRUE(isToken("Content-Type"));
}

TEST(Ascii, CaseConcernsLettersOnly) {
  EXPECT_TRUE(equalsIgnoringCase("cOnTENT-Type", "Content-tYPE"));
  EXPECT_FALSE(equalsIgnoringCase("a@b", "a`b"));
  EXPECT_FALSE(equalsIgnoringCase("[", "{"));
  EXPECT_FALSE(equalsIgnoringCase("\xC4", "\xE4"));
  EXPECT_EQ(uppercased("gEt-\xE4z{"), "GET-\xE4Z{");
  EXPECT_LT(compareIgnoringCase("Accept", "accept-Ranges"), 0);
  EXPECT_GT(compareIgnoringCase("\xE4", "Z"), 0);
  EXPECT_EQ(trimmed(" \t a b\t "), "a b");
  EXPECT_EQ(trimmed(" \t "), "");
}

TEST(Utf8, AcceptsExactlyWellFormedText) {
  EXPECT_TRUE(isValidUTF8(""));
  const std::vector<std::string> valid = words(
      "more-than-eight-bytes \x7F \xC2\x80 \xDF\xBF \xE0\xA0\x80 \xED\x9F\xBF \xEE\x80\x80 "
      "\xEF\xBF\xBF \xF0\x90\x80\x80 \xF4\x8F\xBF\xBF");
  const std::vector<std::string> invalid = words(
      "\x80 \xBF \xC0\x80 \xC1\xBF \xC2 \xC2\x41 \xE0\x9F\xBF \xE1\x80 \xED\xA0\x80 "
      "\xEF\xBF\x41 \xF0\x8F\xBF\xBF \xF1\x80\x80 \xF4\x90\x80\x80 \xF5\x80\x80\x80 \xFF");
  // At every place in a word, and with text after it.
  for (size_t shift = 0; shift < 9; ++shift) {
    for (const std::string_view after : {"", "z", "0123456789abcdef"}) {
      const auto around = [&](std::string_view text) {
        return GuardedBuffer(std::string(shift, 'a').append(text).append(after));
      };
      for (const std::string& text : valid) EXPECT_TRUE(isValidUTF8(around(text).view()));
      for (const std::string& text : invalid) EXPECT_FALSE(isValidUTF8(around(text).view()));
      for (const std::string& text : invalid) EXPECT_FALSE(isASCII(around(text).view()));
    }
  }
}

TEST(Percent, EncodesWhatAPathCannotHold) {
  std::string encoded;
  appendPercentEncodedPath("/a b/100%?#[\xC3\xA9]~!$&'()*+,;=:@", &encoded);
  EXPECT_EQ(encoded, "/a%20b/100%25%3F%23%5B%C3%A9%5D~!$&'()*+,;=:@");
}

TEST(Percent, DecodingAnythingEncodedGivesItBack) {
  std::string every;
  for (int c = 0; c < 256; ++c) every.push_back(static_cast<char>(c));
  std::string encoded;
  std::string decoded;
  appendPercentEncodedPath(every, &encoded);
  const GuardedBuffer buffer(encoded);
  EXPECT_TRUE(
      appendPercentDecoded(buffer.view(), MalformedEscape::kFails, PlusSign::kStays, &decoded));
  EXPECT_EQ(decoded, every);
}

/// Every way to put a start, digits and an end together.
std::vector<std::string> samples() {
  const std::vector<std::string> starts = {"",   " ",    "\t\n\v\f\r ", "+", "-",   " -", "+-",
                                           "- ", "\xA0", "x",           ",", "0x+", "0x"};
  std::vector<std::string> digits = words(
      "0 42 00000000000000000000000000007 18446744073709551615 18446744073709551616 "
      "99999999999999999999999 ffffffffffffffff 10000000000000000 0x 0X1f 0xg 0x0x1 DeadBeef");
  digits.emplace_back();
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

TEST(MediaTypes, FindsExtensionsWhateverTheirCase) {
  const MediaTypes types(
      "# application/comment  comment\n"
      "text/html\t\thtml  htm\r\n"
      "application/without-extension\n"
      "\n"
      "image/jpeg jpeg JPG # a remark\n"
      "image/other jpeg other");
  const struct {
    std::string_view extension;
    std::string_view type;
  } cases[] = {
      {"html", "text/html"},    {"HTM", "text/html"}, {"jpg", "image/jpeg"}, {"Jpeg", "image/jpeg"},
      {"other", "image/other"}, {"comment", ""},      {"remark", ""},        {"", ""},
      {"text/html", ""},
  };
  for (const auto& [extension, type] : cases) {
    EXPECT_EQ(types.typeForExtension(extension).value_or(""), type) << extension;
  }
  EXPECT_FALSE(MediaTypes("").typeForExtension("html"));
}

}  // namespace
}  // namespace vel
