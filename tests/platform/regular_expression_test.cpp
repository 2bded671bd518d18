// Tests of regular expressions: syntax, ranges, literals against the library, limits, threads.
#include "corvane/regular_expression.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "platform/regex_engine.h"
#include "support/guarded_buffer.h"
#include "support/log_capture.h"

namespace {

using Options = VELRegularExpressionOptions;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using vel::test::GuardedBuffer;
using vel::test::LogCapture;
using Expression = std::shared_ptr<const VELRegularExpression>;

Expression compiled(std::string_view pattern, Options options = Options::kNone) {
  VELError error;
  auto expression = VELRegularExpression::regularExpressionWithPattern(pattern, options, &error);
  EXPECT_TRUE(expression) << error.description();
  return expression;
}

/// The matched text, or "(none)".
std::string matched(const Expression& expression, std::string_view text) {
  const GuardedBuffer buffer(text);
  const auto result = expression->firstMatchInString(buffer.view());
  if (!result) return "(none)";
  return std::string(text.substr(result->range().location, result->range().length));
}

TEST(RegularExpression, MatchesByItsOptions) {
  const struct {
    std::string_view pattern;
    Options options;
    std::string_view text;
    std::string_view expected;
  } cases[] = {
      {"b+", Options::kNone, "aabbb", "bbb"},
      {"^/a\\.b", Options::kNone, "/axb", "(none)"},
      {"^/[0-9]+$", Options::kNone, "/12/", "(none)"},
      {"^/(a|b)(?=/)", Options::kNone, "/b/c", "/b"},
      {"GET", Options::kCaseInsensitive, "a get", "get"},
      {"\xC3\x89", Options::kCaseInsensitive, "\xC3\xA9", "\xC3\xA9"},
      {"^.$", Options::kNone, "\xE2\x82\xAC", "\xE2\x82\xAC"},
      {"a b # c", Options::kAllowCommentsAndWhitespace, "ab", "ab"},
      {"a.b", Options::kIgnoreMetacharacters, "axb a.b", "a.b"},
      {"a.b", Options::kNone, "a\nb", "(none)"},
      {"a.b", Options::kDotMatchesLineSeparators, "a\nb", "a\nb"},
      {"^b", Options::kNone, "a\nb", "(none)"},
      {"^b", Options::kAnchorsMatchLines, "a\nb", "b"},
      {"x", Options::kNone, "\xFF\xC3x", "x"},
      {"^/files/(.*)", Options::kNone, "/files/\xFF", "/files/"},
      {"", Options::kNone, "", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(matched(compiled(c.pattern, c.options), c.text), c.expected)
        << c.pattern << " on " << c.text;
  }
}

TEST(RegularExpression, GivesTheRangesOfItsGroups) {
  const auto expression = compiled("/(a)?(b)/([0-9]+)(x)*(y)?(z)");
  EXPECT_EQ(expression->numberOfCaptureGroups(), 6U);
  const auto result = expression->firstMatchInString("..../b/42z");
  ASSERT_TRUE(result);
  const VELTextRange expected[] = {{4, 6}, {}, {5, 1}, {7, 2}, {}, {}, {9, 1}};
  ASSERT_EQ(result->numberOfRanges(), std::size(expected));
  for (size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(result->rangeAtIndex(i), expected[i]) << i;
  }
  EXPECT_EQ(result->rangeAtIndex(1).location, VELNotFound);
  EXPECT_THROW(result->rangeAtIndex(7), VELException);
}

TEST(RegularExpression, SearchesWithinARange) {
  const std::string_view text = "ab ab ab";
  const auto search = [&](std::string_view pattern, VELMatchingOptions options,
                          VELTextRange range) {
    const auto result = compiled(pattern)->firstMatchInString(text, options, range);
    return result ? result->range() : VELTextRange{};
  };
  const VELTextRange none;
  const auto kNone = VELMatchingOptions::kNone;
  EXPECT_EQ(search("ab", kNone, {1, 7}), (VELTextRange{3, 2}));
  EXPECT_EQ(search("^ab", kNone, {3, 5}), (VELTextRange{3, 2}));
  EXPECT_EQ(search("^ab$", kNone, {3, 2}), (VELTextRange{3, 2}));
  EXPECT_EQ(search("^ab", kNone, {3, 1}), none);
  EXPECT_EQ(search("a?b", VELMatchingOptions::kAnchored, {2, 6}), none);
  EXPECT_EQ(search("a?b", VELMatchingOptions::kAnchored, {3, 5}), (VELTextRange{3, 2}));
  EXPECT_EQ(search("$", kNone, {8, 0}), (VELTextRange{8, 0}));
  for (const VELTextRange range : {VELTextRange{9, 0}, {0, 9}, {8, 1}, {1, SIZE_MAX}, none}) {
    EXPECT_THROW(search("a", kNone, range), VELException);
    EXPECT_THROW(search("^a", kNone, range), VELException);
  }
}

TEST(RegularExpression, ReportsMalformedPatterns) {
  for (const std::string_view pattern : {"(", "a)", "[z-a]", "*a", "\\", "^a\\", "\\C", "^\xFF"}) {
    VELError error;
    EXPECT_FALSE(
        VELRegularExpression::regularExpressionWithPattern(pattern, Options::kNone, &error));
    EXPECT_EQ(error.domain(), VELCocoaErrorDomain) << pattern;
    EXPECT_EQ(error.code(), VELFormattingError) << pattern;
    EXPECT_THAT(error.localizedFailureReason(), Not(IsEmpty())) << pattern;
    EXPECT_FALSE(VELRegularExpression::regularExpressionWithPattern(pattern));
  }
}

TEST(RegularExpression, EscapedTextMatchesItselfOnly) {
  std::string every;
  for (int c = 0; c < 0x80; ++c) every.push_back(static_cast<char>(c));
  every += "\xC3\xA9";
  const std::string escaped = VELRegularExpression::escapedPatternForString(every);
  // Without the anchor the library matches; with it the comparison does.
  for (const std::string& pattern : {escaped, "^" + escaped}) {
    EXPECT_EQ(matched(compiled(pattern), every + "tail"), every);
    for (size_t i = 0; i < every.size(); ++i) {
      std::string other = every;
      other[i] = other[i] == 'x' ? 'q' : 'x';
      EXPECT_EQ(matched(compiled(pattern), other), "(none)") << i;
    }
  }
}

TEST(RegexEngine, KnowsWhatEveryMatchBeginsWith) {
  const struct {
    std::string_view pattern;
    Options options;
    std::string_view begin;  // with "=" before a literal that says it all
  } cases[] = {
      {"^/files", Options::kNone, "=/files"},
      {"^", Options::kNone, "="},
      {"^/a\\.b\\+\\/]}", Options::kNone, "=/a.b+/]}"},
      {"^/caf\xC3\xA9", Options::kNone, "=/caf\xC3\xA9"},
      {"^/caf\xC3\xA9", Options::kCaseInsensitive, ""},
      {"^/Docs", Options::kCaseInsensitive, "=/Docs"},
      {"^/users/(.*)", Options::kCaseInsensitive, ""},
      {"/files", Options::kNone, ""},
      {"^/a", Options::kAnchorsMatchLines, ""},
      {"^/a b", Options::kAllowCommentsAndWhitespace, ""},
      {"^/a", Options::kIgnoreMetacharacters, ""},
      {"^/users/([0-9]+)$", Options::kNone, "/users/"},
      {"^/a\\.b$", Options::kNone, "/a.b"},
      {"^/file.", Options::kNone, "/file"},
      {"^/ab*", Options::kNone, "/a"},
      {"^/ab?c", Options::kNone, "/a"},
      {"^/ab{0,2}", Options::kNone, "/a"},
      {"^/a\\+*", Options::kNone, "/a"},
      {"^/\xC3\xA9*", Options::kNone, "/"},
      {"^/a|/b", Options::kNone, ""},
      {"^/a(b|c)", Options::kNone, ""},
      {"/a.", Options::kNone, ""},
      {"^(/a)?", Options::kNone, ""},
      {"^/a\\d", Options::kNone, "/"},
      {"^/ab\\E*c", Options::kNone, "/a"},
      {"^/ab\\Q\\E*c", Options::kNone, "/a"},
      {"^/ab(?#x)*c", Options::kNone, "/a"},
  };
  for (const auto& c : cases) {
    const Expression expression = compiled(c.pattern, c.options);
    const auto& literal = expression->engine().literalPrefix();
    const std::string head(expression->engine().requiredHead());
    EXPECT_EQ(literal ? "=" + std::string(literal->text) + head : head, c.begin) << c.pattern;
  }
}

TEST(RegexEngine, LiteralsMatchAsTheLibraryWould) {
  const std::string_view literals[] = {"", "/", "/desk", "/DESKS/a.b", "/abc", "/t\xC3\xA9"};
  const std::string_view texts[] = {
      "",           "/",           "/desk",      "/DESK",  "/des",         "/desks/a.bc",
      "/desks/axb", "/ABC\xFF",    "/abc@",      "x/abc",  "/de\xC5\xBFk", "/des\xE2\x84\xAA",
      "/\xC3\xA4",  "/t\xC3\xA9t", "/T\xC3\x89", "/t\xC3", "\n/abc"};
  for (const std::string_view literal : literals) {
    for (const Options options : {Options::kNone, Options::kCaseInsensitive}) {
      const std::string escaped = VELRegularExpression::escapedPatternForString(literal);
      const auto byComparison = compiled("^" + escaped, options);
      const auto byLibrary = compiled("^(?:" + escaped + ")", options);
      ASSERT_FALSE(byLibrary->engine().literalPrefix());
      for (const std::string_view text : texts) {
        EXPECT_EQ(matched(byComparison, text), matched(byLibrary, text)) << literal << " " << text;
      }
    }
  }
}

TEST(RegularExpression, GivesUpOnPatternsThatTakeTooLongAndLogsIt) {
  const std::string text = "/" + std::string(4000, 'a') + "!";
  for (const std::string_view pattern : {"^/(a+)+$", "^/(a|aa)+$", "^/(.*)*(.*)*x?$"}) {
    // An anchored search goes through the interpreter, any other through compiled code.
    for (const auto options : {VELMatchingOptions::kNone, VELMatchingOptions::kAnchored}) {
      const LogCapture log;
      EXPECT_FALSE(compiled(pattern)->firstMatchInString(text + "\n\n", options)) << pattern;
      EXPECT_THAT(log.lines(), ElementsAre(HasSubstr("Gave up matching the regular expression \"" +
                                                     std::string(pattern))));
    }
  }
}

TEST(RegularExpression, MatchesTheLongestPathsWithoutGivingUp) {
  const LogCapture log;
  const std::string text = "/" + std::string(8190, 'a');
  for (const std::string_view pattern : {"^/(a|b)*$", "^/(?:(a)|.)+$", "/.*?$", "^(/[^/]*)+$"}) {
    for (const auto options : {VELMatchingOptions::kNone, VELMatchingOptions::kAnchored}) {
      EXPECT_TRUE(compiled(pattern)->firstMatchInString(text, options)) << pattern;
    }
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(RegularExpression, IsSharedByThreads) {
  const auto expression = compiled("^/([a-z]+)/([0-9]+)$");
  std::vector<std::jthread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&expression, t] {
      for (int i = 0; i < 500; ++i) {
        const std::string number = std::to_string(t * 1000 + i);
        const auto result = expression->firstMatchInString("/item/" + number);
        ASSERT_TRUE(result);
        ASSERT_EQ(result->rangeAtIndex(2), (VELTextRange{6, number.size()}));
      }
    });
  }
}

}  // namespace
