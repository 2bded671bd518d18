// Heads as bytes in and parts out, each split at every byte and ended at an unmapped page.
#include "http/message_head.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "http/head_parser.h"
#include "support/guarded_buffer.h"
#include "support/log_capture.h"

namespace vel {
namespace {

using test::GuardedBuffer;

/// Start line and fields, so that two heads compare as texts.
std::string textOf(const MessageHead& head) {
  if (head.progress() == HeadProgress::kMalformed) return "malformed";
  std::string text;
  if (head.isRequest()) {
    text.append(head.method()).append("|").append(head.target().text);
  } else {
    text.append(std::to_string(head.status())).append("|").append(head.reason());
  }
  text.append("|").append(head.version());
  for (size_t i = 0; i < head.fieldCount(); ++i) {
    text.append("|").append(head.fieldAt(i).name).append("=").append(head.fieldAt(i).value);
  }
  return text.append(head.isComplete() ? "" : "|...");
}

MessageHead parsed(std::string_view bytes) {
  MessageHead head;
  HeadParser parser;
  size_t consumed = 0;
  parser.appendData(bytes, &head, &consumed);
  return head;
}

std::string parsedInPieces(std::string_view bytes, size_t first, size_t further) {
  MessageHead head;
  HeadParser parser;
  size_t consumed = 0;
  for (size_t at = 0, size = first; at < bytes.size(); at += size, size = further) {
    const GuardedBuffer piece(bytes.substr(at, size));
    parser.appendData(piece.view(), &head, &consumed);
  }
  return textOf(head);
}

struct HeadCase {
  std::string bytes;
  std::string_view expected;
};

void expectHeads(const std::vector<HeadCase>& cases) {
  for (const HeadCase& row : cases) {
    SCOPED_TRACE(testing::PrintToString(row.bytes));
    EXPECT_EQ(textOf(parsed(row.bytes)), row.expected);
    for (size_t split = 1; split < row.bytes.size(); ++split) {
      ASSERT_EQ(parsedInPieces(row.bytes, split, row.bytes.size()), row.expected) << split;
    }
    EXPECT_EQ(parsedInPieces(row.bytes, 1, 1), row.expected);
  }
}

TEST(MessageHead, ReadsRequests) {
  expectHeads({
      {"GET / HTTP/1.1\r\n\r\n", "GET|/|HTTP/1.1"},
      {"GET / HTTP/1.1\r\nHost: a\r\n", "GET|/|HTTP/1.1|Host=a|..."},
      {"POST /a%20b?x=1&y HTTP/1.0\r\nhost:b:80\r\nX:\r\n\r\n",
       "POST|/a%20b?x=1&y|HTTP/1.0|host=b:80|X="},
      {"GET / HTTP/1.1\r\nA: \t v  w \t\r\nB:  \t \r\n\r\n", "GET|/|HTTP/1.1|A=v  w|B="},
      {"OPTIONS * HTTP/1.1\nA: 1\n\n", "OPTIONS|*|HTTP/1.1|A=1"},
      {"GET http://h:1/p HTTP/1.1\r\n\r\n", "GET|http://h:1/p|HTTP/1.1"},
      {"CONNECT h:443 HTTP/1.1\r\n\r\n", "CONNECT|h:443|HTTP/1.1"},
      {"\r\n\n\r\nGET / HTTP/1.1\r\n\r\n", "GET|/|HTTP/1.1"},
      {"m!#$%&'*+-.^_`|~9 / HTTP/3.7\r\nx!~_9: \xC3\xA4\t\xFF\r\n\r\n",
       "m!#$%&'*+-.^_`|~9|/|HTTP/3.7|x!~_9=\xC3\xA4\t\xFF"},
      {"HTTP / HTTP/1.1\r\n\r\n", "HTTP|/|HTTP/1.1"},
      {"GET / HTTP/1.1\r\nA: b: c :\r\n\r\n", "GET|/|HTTP/1.1|A=b: c :"},
  });
}

TEST(MessageHead, ReadsResponses) {
  expectHeads({
      {"HTTP/1.1 200 OK\r\n\r\n", "200|OK|HTTP/1.1"},
      {"HTTP/1.1 101 Switching Protocols\r\nUpgrade: w\r\n\r\n",
       "101|Switching Protocols|HTTP/1.1|Upgrade=w"},
      {"HTTP/1.0 404 \r\n\r\n", "404||HTTP/1.0"},
      {"HTTP/1.0 404\r\n\r\n", "404||HTTP/1.0"},
      {"HTTP/1.1 299 a\t\xC3\xA9\r\n\r\n", "299|a\t\xC3\xA9|HTTP/1.1"},
      {"HTTP/1.1 200 OK\r\nA: 1 \r\n \t 2\t\r\n\t3\r\nB: 4\r\n\r\n", "200|OK|HTTP/1.1|A=1 2 3|B=4"},
      {"HTTP/1.1 200 OK\r\nA:\r\n 1\r\n  \r\n\r\n", "200|OK|HTTP/1.1|A=1"},
  });
}

TEST(MessageHead, RefusesMalformedStartLines) {
  for (const std::string line : {"GET /",
                                 "GET / ",
                                 "GET  / HTTP/1.1",
                                 "GET /  HTTP/1.1",
                                 "GET / HTTP/1.1 ",
                                 " GET / HTTP/1.1",
                                 "GET\t/ HTTP/1.1",
                                 "GET HTTP/1.1",
                                 "GET  HTTP/1.1",
                                 "/ HTTP/1.1",
                                 "G@T / HTTP/1.1",
                                 "GET / a HTTP/1.1",
                                 "GET / http/1.1",
                                 "GET / HTTP/1",
                                 "GET / HTTP/1.10",
                                 "GET / HTTP/11",
                                 "GET / HTTP/x.1",
                                 "GET / HTTP/1,1",
                                 "GET / FTP/1.1",
                                 "GET /%zz HTTP/1.1",
                                 "GET relative HTTP/1.1",
                                 "GET /\rHost:a HTTP/1.1",
                                 "GET / HTTP/1.1\r",
                                 "HTTP/1.1",
                                 "HTTP/1.1 ",
                                 "HTTP/1.1 20",
                                 "HTTP/1.1 2x0 OK",
                                 "HTTP/1.1  200 OK",
                                 "HTTP/1.1 2000",
                                 "HTTP/1.1 200OK",
                                 "HTTP/1 200 OK",
                                 "HTTP/1.1 200 a\rb",
                                 "HTTP/1.1 200 \x01",
                                 ":"}) {
    expectHeads({{line + "\r\n", "malformed"}});
  }
}

TEST(MessageHead, RefusesMalformedFields) {
  for (const std::string_view line :
       {"a\r\n", ":\r\n", ": b\r\n", "a : b\r\n", "a\t: b\r\n", "a b: c\r\n", "(a): b\r\n",
        "\xC3\xA4: b\r\n", " a: b\r\n", "\ta: b\r\n", " \r\n", "a: b\rc\r\n", "a: b\r\r\n",
        "a: \x7F\r\n", "A: 1\r\n 2\r\n", "A: 1\r\n\t2\r\n"}) {
    expectHeads({{"GET / HTTP/1.1\r\n" + std::string(line) + "\r\n", "malformed"}});
  }
  expectHeads({{std::string("GET / HTTP/1.1\r\na: b\0c\r\n\r\n", 27), "malformed"},
               {"HTTP/1.1 200 OK\r\n a: b\r\n\r\n", "malformed"},
               {"HTTP/1.1 200 OK\r\nA: 1\r\n 2\x01\r\n\r\n", "malformed"}});
}

TEST(MessageHead, StaysMalformedOrComplete) {
  MessageHead head;
  EXPECT_EQ(head.appendLine("GET\r\n"), HeadProgress::kMalformed);
  EXPECT_EQ(head.appendLine("GET / HTTP/1.1\r\n"), HeadProgress::kMalformed);
  head.clear();
  EXPECT_EQ(head.appendLine("GET / HTTP/1.1"), HeadProgress::kNeedsMore);
  EXPECT_EQ(head.appendLine(""), HeadProgress::kComplete);
  EXPECT_EQ(head.appendLine("A: 1\r\n"), HeadProgress::kComplete);
  EXPECT_EQ(head.fieldCount(), 0U);
}

TEST(MessageHead, FindsKnownFieldsInAnyLetterCase) {
  const MessageHead head = parsed(
      "GET / HTTP/1.1\r\nhOST: 1\r\nrange: 2\r\nEXPECT: 3\r\ncookie: 4\r\nconnection: 5\r\n"
      "CONTENT-type: 6\r\ncontent-length: 7\r\ntransfer-ENCODING: 8\r\nAccept: 9\r\n\r\n");
  const std::vector<std::pair<KnownField, std::string_view>> cases = {
      {KnownField::kHost, "1"},          {KnownField::kRange, "2"},
      {KnownField::kExpect, "3"},        {KnownField::kCookie, "4"},
      {KnownField::kConnection, "5"},    {KnownField::kContentType, "6"},
      {KnownField::kContentLength, "7"}, {KnownField::kTransferEncoding, "8"}};
  for (const auto& [field, value] : cases) EXPECT_EQ(head.field(field), value);
  EXPECT_EQ(parsed("GET / HTTP/1.1\r\nHosts: 1\r\n\r\n").field(KnownField::kHost), std::nullopt);
  EXPECT_EQ(head.valueForField("ACCEPT"), "9");
  EXPECT_EQ(head.valueForField("Accep"), std::nullopt);
}

TEST(MessageHead, JoinsRepeatedFields) {
  const MessageHead head = parsed(
      "GET / HTTP/1.1\r\nX-a: 1\r\nConnection: a\r\nCookie: c=1\r\nx-A: 2\r\nconnection: b\r\n"
      "Cookie: d=2\r\nX-A:\r\n\r\n");
  EXPECT_EQ(head.field(KnownField::kConnection), "a, b");
  EXPECT_EQ(head.field(KnownField::kCookie), "c=1; d=2");
  std::string scratch;
  EXPECT_EQ(head.field("X-A", &scratch), "1, 2, ");
  EXPECT_EQ(head.valueForField("CONNECTION"), "a, b");
  const VELDictionary headers = head.headers();
  EXPECT_EQ(headers.size(), 3U);
  EXPECT_EQ(headers.begin()->first, "Connection");
  EXPECT_EQ(headers.find("x-a")->second, "1, 2, ");
  EXPECT_EQ(headers.find("cookie")->second, "c=1; d=2");
  EXPECT_EQ(head.fieldCount(), 7U);
}

TEST(MessageHead, JoinsWhatHasComeSoFar) {
  MessageHead head;
  head.appendLine("GET / HTTP/1.1\r\n");
  head.appendLine("Connection: a\r\n");
  head.appendLine("Connection: b\r\n");
  EXPECT_EQ(head.valueForField("connection"), "a, b");
  head.setField("1", "Later");
  head.appendLine("Connection: c\r\n");
  head.appendLine("\r\n");
  EXPECT_EQ(head.field(KnownField::kConnection), "a, b, c");
  EXPECT_EQ(head.valueForField("later"), "1");
}

// Two readers that pick different lengths see different requests in the same bytes.
TEST(MessageHead, RefusesLengthsThatDiffer) {
  const std::vector<std::pair<std::string, std::optional<std::string_view>>> cases = {
      {"Content-Length: 5\r\n", "5"},
      {"Content-Length: 42abc\r\n", "42abc"},
      {"Content-Length:\r\n", ""},
      {"Content-Length: 5, 5 ,5\r\n", "5"},
      {"Content-Length: 5\r\nA: 1\r\nCONTENT-LENGTH: 5\r\n", "5"},
      {"Content-Length: 5\r\nContent-Length: 6\r\n", std::nullopt},
      {"Content-Length: 5\r\nContent-Length: 05\r\n", std::nullopt},
      {"Content-Length: 5, 6\r\n", std::nullopt},
      {"Content-Length: 5,\r\n", std::nullopt},
      {"Content-Length: 5\r\nContent-Length:\r\n", std::nullopt},
  };
  for (const auto& [fields, length] : cases) {
    const MessageHead head = parsed("GET / HTTP/1.1\r\n" + fields + "\r\n");
    EXPECT_EQ(head.isComplete(), length.has_value()) << fields;
    if (!head.isComplete()) continue;
    EXPECT_EQ(head.field(KnownField::kContentLength), length) << fields;
    EXPECT_EQ(head.headers().find("content-length")->second, length) << fields;
  }
}

std::string largeHead() {
  std::string bytes = "GET http://host.example?q=%41 HTTP/1.1\r\n";
  for (int i = 0; i < 99; ++i) {
    bytes +=
        "Field-" + std::to_string(i) + ": " + std::string(70, 'v') + std::to_string(i) + "\r\n";
  }
  return bytes + "\r\n";
}

TEST(MessageHead, KeepsItsPartsWhenItGrowsAndMoves) {
  for (const std::string& bytes :
       {largeHead(), std::string("GET /a%20b?c HTTP/1.1\r\nHost: h\r\nHost: i\r\n\r\n"),
        std::string("HTTP/1.1 200 Fine\r\nA: 1\r\n\r\n")}) {
    MessageHead head = parsed(bytes);
    const std::string expected = textOf(head);
    const std::string path(head.target().path);
    const std::string query(head.target().query);

    MessageHead copy(head);
    MessageHead moved(std::move(head));
    head = parsed("GET /other HTTP/1.1\r\n\r\n");
    EXPECT_EQ(textOf(head), "GET|/other|HTTP/1.1");
    head = copy;
    copy = std::move(moved);
    moved.clear();
    for (const MessageHead* each : {&head, &copy}) {
      EXPECT_EQ(textOf(*each), expected);
      EXPECT_EQ(each->target().path, path);
      EXPECT_EQ(each->target().query, query);
      EXPECT_EQ(each->receivedBytes(), bytes);
    }
  }
  const MessageHead head = parsed(largeHead());
  EXPECT_EQ(head.fieldCount(), 99U);
  EXPECT_EQ(head.target().path, "/");
  EXPECT_EQ(head.target().host, "host.example");
  EXPECT_EQ(head.valueForField("field-98"), std::string(70, 'v') + "98");
}

TEST(MessageHead, SetsFields) {
  MessageHead head =
      parsed("GET / HTTP/1.1\r\nA: 1\r\nHost: h\r\na: 2\r\nContent-Length: 5, 5\r\nB: 3\r\n\r\n");
  head.setField("new", "A");
  head.setField(*head.field(KnownField::kHost), "C");
  head.setField("x\r\ny", "b");
  EXPECT_EQ(textOf(head), "GET|/|HTTP/1.1|A=new|Host=h|Content-Length=5, 5|B=x  y|C=h");
  EXPECT_EQ(head.field(KnownField::kHost), "h");
  EXPECT_EQ(head.field(KnownField::kContentLength), "5");
  EXPECT_EQ(head.receivedBytes(), std::nullopt);

  const test::LogCapture log;
  for (const std::string_view name : {"", "a b", "a\r\nb", "a:"}) head.setField("v", name);
  EXPECT_EQ(head.fieldCount(), 5U);
  EXPECT_EQ(log.lines().size(), 4U);
}

}  // namespace
}  // namespace vel
