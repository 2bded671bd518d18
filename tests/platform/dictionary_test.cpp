// Tests of the form decoder and of the parameters that a query gives.
#include "corvane/dictionary.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/url_query.h"
#include "support/guarded_buffer.h"

namespace {

using testing::ElementsAre;
using testing::Pair;
using vel::test::GuardedBuffer;
using Pairs = std::map<std::string, std::string>;

Pairs pairsOf(const VELDictionary& dictionary) { return {dictionary.begin(), dictionary.end()}; }

TEST(FormDecoder, DecodesPairs) {
  const struct {
    std::string_view text;
    Pairs expected;
  } cases[] = {
      {"", {}},
      {"&&", {}},
      {"=x", {}},
      {"=", {}},
      {"a=1&a=2", {{"a", "2"}}},
      {"flag", {{"flag", ""}}},
      {"a=1&a", {{"a", ""}}},
      {"a=b=c", {{"a", "b"}}},
      {"a==c", {{"a", ""}}},
      {"a+b=c+d", {{"a b", "c d"}}},
      {"a%2Bb=%26%3D", {{"a+b", "&="}}},
      {"k=%zz", {{"k", ""}}},
      {"k=ok%", {{"k", ""}}},
      {"k=%4", {{"k", ""}}},
      {"%zz=1&b=2", {{"b", "2"}}},
      {"k=1&k=%zz", {{"k", ""}}},
      {"k=%C3%A9", {{"k", "\xC3\xA9"}}},
      {"k=%FF&%FF=1", {{"k", ""}}},
      {"A=1&a=2", {{"A", "1"}, {"a", "2"}}},
      {"&a=1&&b=2&", {{"a", "1"}, {"b", "2"}}},
  };
  for (const auto& c : cases) {
    const GuardedBuffer buffer(c.text);
    EXPECT_EQ(pairsOf(vel_dictionaryWithHTTPFormEncodedString(buffer.view())), c.expected)
        << c.text;
  }
}

TEST(FormDecoder, KeepsManyPairsApart) {
  std::string text;
  for (int i = 0; i < 100'000; ++i) text += "k" + std::to_string(i) + "=v&";
  EXPECT_EQ(vel_dictionaryWithHTTPFormEncodedString(text).size(), 100'000U);
}

TEST(QueryParameters, FollowTheItems) {
  const struct {
    std::string_view query;
    Pairs expected;
  } cases[] = {
      {"", {}},
      {"x=1", {{"x", "1"}}},
      {"x=1&x=2", {{"x", "2"}}},
      {"x=1&x", {}},
      {"x&x=1", {{"x", "1"}}},
      {"x=", {{"x", ""}}},
      {"q=a+b", {{"q", "a+b"}}},
      {"a=b=c", {{"a", "b=c"}}},
      {"a%20b=c%20d", {{"a b", "c d"}}},
      {"a=%zz%20", {{"a", "%zz "}}},
      {"a=%", {{"a", "%"}}},
      {"a=%ff", {{"a", "%ff"}}},
      {"=v", {{"", "v"}}},
      {"a=1&&b=2", {{"a", "1"}, {"b", "2"}}},
  };
  for (const auto& c : cases) {
    const GuardedBuffer buffer(c.query);
    EXPECT_EQ(pairsOf(vel::dictionaryWithURLQuery(buffer.view())), c.expected) << c.query;
  }
}

TEST(KeyOrder, FindsKeysInAnyCaseWhenToldTo) {
  VELDictionary headers(VELKeyOrder{true});
  headers["Content-Type"] = "text/plain";
  headers["CONTENT-TYPE"] = "text/html";
  const VELDictionary copy = headers;
  EXPECT_THAT(copy, ElementsAre(Pair("Content-Type", "text/html")));
  EXPECT_NE(copy.find(std::string_view("content-type")), copy.end());
  EXPECT_EQ(VELDictionary(headers.begin(), headers.end()).count("content-type"), 0U);
}

}  // namespace
