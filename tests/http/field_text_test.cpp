// The classes of bytes, against the plain definition: every byte at every place of texts that take each
// of the ways through the code, up to an unmapped page.
#include "http/field_text.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/ascii.h"
#include "support/guarded_buffer.h"

namespace vel {
namespace {

using test::GuardedBuffer;

// One for each way through the code, and those next to its edges.
constexpr size_t kLengths[] = {0, 1, 3, 4, 7, 8, 9, 15, 16, 17, 31, 32, 33};

/// Calls `check` with the texts of each length that are `filler` but for one byte.
template <typename Check>
void forEachByteAtEachPlace(char filler, Check check) {
  for (const size_t length : kLengths) {
    GuardedBuffer text(std::string(length, filler));
    check(text.view());
    for (size_t at = 0; at < length; ++at) {
      for (int byte = 0; byte < 256; ++byte) {
        text.data()[at] = static_cast<char>(byte);
        check(text.view());
        if (testing::Test::HasFailure()) return;
      }
      text.data()[at] = filler;
    }
  }
}

bool isAllowedInValue(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte == '\t' || (byte >= 0x20 && byte != 0x7F);
}

TEST(FieldText, KnowsValues) {
  forEachByteAtEachPlace('v', [](std::string_view text) {
    bool expected = true;
    for (const char c : text) expected = expected && isAllowedInValue(c);
    ASSERT_EQ(isFieldText(text), expected) << testing::PrintToString(text);

    const GuardedBuffer copy(std::string(text.size(), '?'));
    ASSERT_EQ(copyFieldText(text, copy.data()), expected);
    ASSERT_EQ(copy.view(), text);
  });
}

TEST(FieldText, KnowsNames) {
  for (const char filler : {'n', '-', '~'}) {
    forEachByteAtEachPlace(filler, [](std::string_view text) {
      size_t expected = 0;
      while (expected < text.size() && isTokenCharacter(text[expected])) ++expected;
      ASSERT_EQ(tokenLength(text), expected) << testing::PrintToString(text);
      ASSERT_EQ(isFieldName(text), !text.empty() && expected == text.size());
    });
  }
}

TEST(FieldText, BlanksOutWhatAValueCannotHold) {
  std::string text("a\0b\rc\nd\te\x7F\x1B\xC3", 12);
  std::string clean(text.size(), '?');
  copyCleanFieldText(text, clean.data());
  EXPECT_EQ(clean, "a b c d\te  \xC3");
}

}  // namespace
}  // namespace vel
