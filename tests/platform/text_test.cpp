// Tests of ASCII helpers, the UTF-8 check and percent-encoding.
#include <gtest/gtest.h>

#include <string>

#include "platform/ascii.h"
#include "platform/percent.h"
#include "platform/utf8.h"
#include "support/guarded_buffer.h"

namespace vel {
namespace {

using test::GuardedBuffer;

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
  const std::string_view valid[] = {"",
                                    "plain text of more than eight bytes",
                                    "\x7F",
                                    "\xC2\x80",
                                    "\xDF\xBF",
                                    "\xE0\xA0\x80",
                                    "\xED\x9F\xBF",
                                    "\xEE\x80\x80",
                                    "\xEF\xBF\xBF",
                                    "\xF0\x90\x80\x80",
                                    "\xF4\x8F\xBF\xBF"};
  const std::string_view invalid[] = {"\x80",
                                      "\xBF",
                                      "\xC0\x80",
                                      "\xC1\xBF",
                                      "\xC2",
                                      "\xC2\x41",
                                      "\xE0\x9F\xBF",
                                      "\xE1\x80",
                                      "\xED\xA0\x80",
                                      "\xEF\xBF\x41",
                                      "\xF0\x8F\xBF\xBF",
                                      "\xF1\x80\x80",
                                      "\xF4\x90\x80\x80",
                                      "\xF5\x80\x80\x80",
                                      "\xFF"};
  // At every place in a word, and with text after it.
  for (size_t shift = 0; shift < 9; ++shift) {
    for (const std::string_view after : {"", "z", "0123456789abcdef"}) {
      const std::string before(shift, 'a');
      for (const std::string_view text : valid) {
        const GuardedBuffer buffer(before + std::string(text) + std::string(after));
        EXPECT_TRUE(isValidUTF8(buffer.view())) << buffer.view();
      }
      for (const std::string_view text : invalid) {
        const GuardedBuffer buffer(before + std::string(text) + std::string(after));
        EXPECT_FALSE(isValidUTF8(buffer.view())) << buffer.view();
        EXPECT_FALSE(isASCII(buffer.view()));
      }
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

}  // namespace
}  // namespace vel
