// Tests of URLs, of the parameters that queries and forms give, and of the requests that clients send.
#include "corvane/url.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "corvane/dictionary.h"
#include "corvane/error.h"
#include "corvane/progress.h"
#include "corvane/url_request.h"
#include "platform/url_query.h"
#include "support/guarded_buffer.h"
#include "support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::Pair;
using vel::test::GuardedBuffer;

struct Components {
  std::string_view text;
  std::string_view scheme;
  std::string_view host;
  std::optional<uint16_t> port;
  std::string_view path;
  std::optional<std::string> query;
  std::optional<std::string> fragment;
};

TEST(URL, SplitsIntoComponents) {
  const Components cases[] = {
      {"http://example.com", "http", "example.com", {}, "", {}, {}},
      {"http://example.com/", "http", "example.com", {}, "/", {}, {}},
      {"https://u:p@example.com:8443/a%20b/c.txt/?q=%20#f%20", "https", "example.com", 8443,
       "/a b/c.txt", "q=%20", "f%20"},
      {"http://[2001:db8::1]:80/?", "http", "2001:db8::1", 80, "/", "", {}},
      {"http://h/a?b?c#d#e", "http", "h", {}, "/a", "b?c", "d#e"},
      {"//host/x", "", "host", {}, "/x", {}, {}},
      {"/a/b/", "", "", {}, "/a/b", {}, {}},
      {"a/b:c", "", "", {}, "a/b:c", {}, {}},
      {"?x=1", "", "", {}, "", "x=1", {}},
      {"mailto:a@b", "mailto", "", {}, "a@b", {}, {}},
      {"file:///tmp/%C3%A9", "file", "", {}, "/tmp/\xC3\xA9", {}, {}},
      {"ws://h:1/|^{}", "ws", "h", 1, "/|^{}", {}, {}},
  };
  for (const Components& c : cases) {
    const std::optional<VELURL> url = VELURL::URLWithString(c.text);
    ASSERT_TRUE(url) << c.text;
    EXPECT_EQ(url->absoluteString(), c.text);
    EXPECT_EQ(url->scheme(), c.scheme) << c.text;
    EXPECT_EQ(url->host(), c.host) << c.text;
    EXPECT_EQ(url->port(), c.port) << c.text;
    EXPECT_EQ(url->path(), c.path) << c.text;
    EXPECT_EQ(url->query(), c.query) << c.text;
    EXPECT_EQ(url->fragment(), c.fragment) << c.text;
  }
}

TEST(URL, RefusesMalformedText) {
  for (const char* text : {"", "http://h/a b", "/a\nb", "/%zz", "http://h:x/", "http://h:65536/",
                           "http://[::1/", "/a?b c", "/a#\x7F"}) {
    EXPECT_FALSE(VELURL::URLWithString(text)) << text;
  }
}

TEST(URL, RequestTargetsKeepTheirDoubleSlashAndTheirRoot) {
  EXPECT_EQ(VELURL::URLWithRequestTarget("//host/x")->path(), "//host/x");
  EXPECT_EQ(VELURL::URLWithRequestTarget("//host/x")->host(), "");
  EXPECT_EQ(VELURL::URLWithRequestTarget("http://h")->path(), "/");
  EXPECT_EQ(VELURL::URLWithRequestTarget("*")->path(), "*");
  EXPECT_FALSE(VELURL::URLWithRequestTarget("relative"));
  const VELURL appended = VELURL::URLWithRequestTarget("//a?x")->URLByAppendingPathComponent("b");
  EXPECT_EQ(appended.path(), "//a/b");
}

TEST(URL, NamesTheLastPartAndItsExtension) {
  const struct {
    std::string_view text;
    std::string_view last;
    std::string_view extension;
  } cases[] = {
      {"/a/photo.JPG", "photo.JPG", "JPG"},
      {"/archive.tar.gz?x=.y", "archive.tar.gz", "gz"},
      {"/.bashrc", ".bashrc", ""},
      {"/a.b/c", "c", ""},
      {"/a.", "a.", ""},
      {"/", "/", ""},
      {"/dir.d/", "dir.d", "d"},
      {"http://h.com", "", ""},
      {"/a%2Eb", "a.b", "b"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(VELURL::URLWithString(c.text)->lastPathComponent(), c.last) << c.text;
    EXPECT_EQ(VELURL::URLWithString(c.text)->pathExtension(), c.extension) << c.text;
  }
}

TEST(URL, QueryItemsKeepOrderAndAbsentValues) {
  const std::vector<VELURLQueryItem> expected = {
      {"a", "1"}, {"b", std::nullopt}, {"", std::nullopt}, {"a", ""}, {"c d", "e+f=g"}};
  EXPECT_EQ(VELURL::URLWithString("/?a=1&b&&a=&c%20d=e+f=g#x=y")->queryItems(), expected);
  EXPECT_TRUE(VELURL::URLWithString("/?")->queryItems().empty());
  EXPECT_TRUE(VELURL().queryItems().empty());
}

TEST(URL, FilePathsSurviveTheirWayThroughAURL) {
  for (const std::string_view path : {"/tmp/a b%20?#c", "/\xC3\xA9\xFF/[x]", "/", "//x:y"}) {
    const VELURL url = VELURL::fileURLWithPath(path);
    EXPECT_TRUE(url.isFileURL());
    EXPECT_EQ(url.filePath(), path);
    EXPECT_FALSE(url.query());
  }
  const std::string current = std::filesystem::current_path().string();
  EXPECT_EQ(VELURL::fileURLWithPath("x").filePath(), current + "/x");
  EXPECT_EQ(VELURL::URLWithString("http://h/x")->filePath(), "");
  const VELURL directory = VELURL::fileURLWithPath("/tmp/dir/");
  EXPECT_EQ(directory.URLByAppendingPathComponent("100% #1").filePath(), "/tmp/dir/100% #1");
}

TEST(URL, AnAppendedComponentIsNeverAHost) {
  for (const std::string_view text : {"file://", "h://", "//", "http:", "/", "http:///?q"}) {
    const VELURL url = VELURL::URLWithString(text)->URLByAppendingPathComponent("etc");
    EXPECT_EQ(url.host(), "") << text;
    EXPECT_EQ(url.path(), "/etc") << text;
  }
}

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

TEST(URLRequest, KeepsFieldsThatCannotEndTheirLine) {
  const vel::test::LogCapture log;
  VELURLRequest request(*VELURL::URLWithString("http://h/"));
  request.setValueForHTTPHeaderField("a\r\nX: 1", "Evil");
  request.setValueForHTTPHeaderField("x", "No\r\nToken");
  request.addValueForHTTPHeaderField("chat", "sec-websocket-protocol");
  request.addValueForHTTPHeaderField("superchat", "Sec-WebSocket-Protocol");
  request.setValueForHTTPHeaderField("1", "Gone");
  request.setValueForHTTPHeaderField(std::nullopt, "GONE");
  EXPECT_THAT(
      request.allHTTPHeaderFields(),
      ElementsAre(Pair("Evil", "a  X: 1"), Pair("Sec-WebSocket-Protocol", "chat,superchat")));
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_THROW(request.setMethod("GET / HTTP/1.1\r\n"), VELException);
  EXPECT_EQ(request.method(), "GET");
}

TEST(URLRequest, HasOneBodyAtATime) {
  VELURLRequest request(*VELURL::URLWithString("http://h/"));
  request.setBody(VELData(std::string("a")));
  request.setBodyStream(VELInputStream::inputStreamWithData("b"));
  EXPECT_FALSE(request.body());
  request.setBody(VELData(std::string("a")));
  EXPECT_EQ(request.bodyStream(), nullptr);
}

TEST(Progress, RunsTheHandlerOnce) {
  auto progress = VELProgress::discreteProgress(-1);
  int first = 0;
  int second = 0;
  progress->setCancellationHandler([&] { ++first; });
  progress->cancel();
  progress->cancel();
  progress->setCancellationHandler([&] { ++second; });
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);

  for (int round = 0; round < 100; ++round) {
    auto raced = VELProgress::discreteProgress(-1);
    std::atomic<int> calls{0};
    std::thread canceller([&] { raced->cancel(); });
    raced->setCancellationHandler([&] { ++calls; });
    canceller.join();
    EXPECT_EQ(calls, 1);
  }
}

TEST(Progress, KeepsObjectsByName) {
  VELProgress progress(-1);
  progress.setUserInfoObjectForKey(std::make_shared<int>(4), "object");
  EXPECT_EQ(*std::any_cast<std::shared_ptr<int>>(progress.userInfoObject("object")), 4);
  progress.setUserInfoObjectForKey({}, "object");
  EXPECT_FALSE(progress.userInfoObject("object").has_value());
}

}  // namespace
