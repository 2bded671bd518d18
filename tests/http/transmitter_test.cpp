#include "http/transmitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "http/tags.h"
#include "support/digits_response.h"
#include "support/fake_connection.h"
#include "support/fake_socket.h"
#include "support/scripted_response.h"

namespace vel {
namespace {

using test::digits;
using test::DigitsResponse;
using test::FakeSocket;
using test::ScriptedResponse;
using test::SocketCall;
using test::withoutDates;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// Completes the writes one after the other until there are no more.
Progress completeWrites(Transmitter* transmitter, const FakeSocket& socket) {
  for (size_t next = 0; next < socket.calls().size(); ++next) {
    if (socket.calls()[next].tag == kLastTag) continue;
    const Progress progress = transmitter->didWrite(socket.calls()[next].tag);
    if (progress != Progress::kUnderWay) return progress;
  }
  return Progress::kUnderWay;
}

enum : unsigned { kPlain = 0, kChunked = 1, kHeadOnly = 2, kNeverTellsItsEnd = 4 };

struct Case {
  const char* what;
  unsigned how;
  std::deque<std::string> pieces;
  std::vector<int64_t> tags;
  std::string body;
};

TEST(Transmitter, FramesAndTagsEveryWrite) {
  const std::string large(1000, 'l');
  const std::vector<Case> cases = {
      {"one piece", kPlain, {"hello"}, {90}, "hello"},
      {"one large piece", kPlain, {large}, {21, 90}, large},
      {"two pieces", kPlain, {"hello", "you"}, {21, 22, 90}, "helloyou"},
      {"end seen late", kPlain | kNeverTellsItsEnd, {"hello"}, {21, 22}, "hello"},
      {"nothing comes", kPlain, {""}, {90}, ""},
      {"head only", kPlain | kHeadOnly, {"hello"}, {90}, ""},
      {"one chunk", kChunked, {"0123456789"}, {21, 30, 31, 90}, "a\r\n0123456789\r\n0\r\n\r\n"},
      {"two chunks",
       kChunked,
       {"hello", "you"},
       {21, 30, 31, 32, 30, 31, 90},
       "5\r\nhello\r\n3\r\nyou\r\n0\r\n\r\n"},
      {"dry", kChunked | kNeverTellsItsEnd, {"hello"}, {21, 30, 31, 32}, "5\r\nhello\r\n"},
      {"no chunk", kChunked | kNeverTellsItsEnd, {}, {21}, ""},
      {"chunked, head only", kChunked | kHeadOnly, {"hello"}, {90}, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const bool is_chunked = (c.how & kChunked) != 0;
    const bool is_head_only = (c.how & kHeadOnly) != 0;
    const auto socket = std::make_shared<FakeSocket>();
    ScriptedResponse response(c.pieces, (c.how & kNeverTellsItsEnd) == 0);
    response.setChunked(is_chunked);
    SentBytes sent;
    const VELLimits limits;
    Transmitter transmitter(*socket, response, limits, sent);
    Progress end = transmitter.begin(is_head_only);
    if (end == Progress::kUnderWay) end = completeWrites(&transmitter, *socket);
    EXPECT_EQ(end, c.tags.back() == kLastTag ? Progress::kUnderWay : Progress::kFinished);
    EXPECT_EQ(socket->writeTags(), c.tags);
    const std::string& output = socket->output();
    EXPECT_EQ(output.substr(output.find("\r\n\r\n") + 4), c.body);
    EXPECT_EQ(sent.all, output.size());
    // Without their framing.
    EXPECT_EQ(sent.body, is_head_only ? 0 : response.contentLength());
    EXPECT_EQ(response.asked_for.empty(), is_head_only || c.pieces == std::deque<std::string>{""});
    for (const SocketCall& call : socket->calls()) {
      const bool isBody = call.tag == kChunkTag || call.tag == kPlainPieceTag ||
                          (call.tag == kLastTag && !is_chunked && call.bytes.find("HTTP/") != 0);
      EXPECT_EQ(call.timeout.count(), isBody ? -1 : 30'000) << call.tag;
    }
  }
}

// Changes its head while its body is read, and counts how often it is asked whether that is all.
class ShiftyResponse : public VELResponse {
 public:
  ShiftyResponse(std::vector<std::string> pieces, size_t field_length)
      : pieces_(std::move(pieces)) {
    setStatus(200);
    setContentLength(1);
    setValueForHeader(std::string(field_length, 'v'), "X-Field");
  }
  VELData readDataOfLength(uint64_t) override {
    setHeaders({});
    setStatusDescription(std::nullopt);
    return next_ < pieces_.size() ? VELData(pieces_[next_++]) : VELData();
  }
  bool isFinished() const override {
    ++asked;
    return next_ == pieces_.size();
  }

  mutable int asked = 0;

 private:
  const std::vector<std::string> pieces_;
  size_t next_ = 0;
};

TEST(Transmitter, ReadsTheHeadBeforeTheBodyAndAsksOnceForTheEnd) {
  const std::vector<std::pair<std::vector<std::string>, int>> cases = {
      {{"small"}, 1}, {{std::string(5000, 'l')}, 1}, {{"one", "two"}, 2}, {{""}, 0}, {{}, 0}};
  for (const auto& [pieces, asked] : cases) {
    for (const size_t field_length : {100U, 5000U}) {
      const auto socket = std::make_shared<FakeSocket>();
      ShiftyResponse response(pieces, field_length);
      SentBytes sent;
      const VELLimits limits;
      Transmitter transmitter(*socket, response, limits, sent);
      if (transmitter.begin(false) == Progress::kUnderWay) completeWrites(&transmitter, *socket);
      EXPECT_THAT(socket->output(),
                  HasSubstr("X-Field: " + std::string(field_length, 'v') + "\r\n"));
      EXPECT_EQ(response.asked, asked);
      EXPECT_EQ(sent.all, socket->output().size());
    }
  }
}

// Puts "*" in place of the boundary.
std::string withoutBoundary(std::string output) {
  const size_t at = output.find("boundary=");
  if (at == std::string::npos) return output;
  const std::string boundary = output.substr(at + 9, 36);
  for (size_t next = 0; (next = output.find(boundary, next)) != std::string::npos;) {
    output.replace(next, boundary.size(), "*");
  }
  return output;
}

// The body of an answer, with "<0-1/20>" for the header of a part and "<>" for the line after the last.
std::string outline(const std::string& output) {
  const std::string text = withoutBoundary(output);
  const std::regex part("\r\n--[*]\r\nContent-Range: bytes ([-0-9/]+)\r\n\r\n");
  const std::regex end("\r\n--[*]--\r\n$");
  const std::string body = text.substr(text.find("\r\n\r\n") + 4);
  return std::regex_replace(std::regex_replace(body, part, "<$1>"), end, "<>");
}

struct RangeCase {
  const char* range;
  uint64_t length;
  bool moves;
  std::vector<int64_t> tags;
  std::string body;
  std::vector<uint64_t> asked;
  Progress end;
};

// Pieces have ten bytes at most.
const std::vector<RangeCase>& rangeCases() {
  using enum Progress;
  constexpr bool kMoves = true;
  constexpr bool kStays = false;
  static const std::vector<RangeCase> cases = {
      {"bytes=2-4", 40, kStays, {90}, "234", {3}, kUnderWay},
      {"bytes=5-14", 40, kStays, {90}, digits(5, 10), {10}, kUnderWay},
      {"bytes=7", 40, kStays, {90}, "7", {1}, kUnderWay},
      {"bytes=-0", 40, kStays, {21}, "", {0}, kFinished},
      {"bytes=25-", 40, kStays, {21, 40, 40}, digits(25, 15), {10, 10, 10}, kStranded},
      {"bytes=5-19", 40, kMoves, {21, 40, 90}, digits(5, 15), {10, 5}, kUnderWay},
      // More than was asked for.
      {"bytes=5-19",
       40,
       kStays,
       {21, 40, 40, 40, 40},
       digits(5, 35),
       {10, 10, 10, 10, 10},
       kStranded},
      {"bytes=4-5,0-1", 6, kStays, {21, 21, 50, 50}, "<0-1/6>012345", {2, 10, 10}, kStranded},
      {"bytes=4-5,0-1",
       20,
       kMoves,
       {21, 21, 50, 21, 50, 90},
       "<0-1/20>01<4-5/20>45<>",
       {2, 2},
       kUnderWay},
      {"bytes=0-14,16",
       20,
       kMoves,
       {21, 21, 50, 50, 21, 50, 90},
       "<0-14/20>" + digits(0, 15) + "<16-16/20>6<>",
       {10, 5, 1},
       kUnderWay},
      // Parts without bytes.
      {"bytes=0,-0", 20, kMoves, {21, 21, 50, 21}, "<0-0/20>0<20-19/20>", {1, 0}, kStranded},
      {"bytes=-0,-0", 20, kMoves, {21, 21}, "<20-19/20>", {0}, kFinished},
  };
  return cases;
}

TEST(Transmitter, SendsRanges) {
  VELLimits limits;
  limits.bodyPiece = 10;
  for (const RangeCase& c : rangeCases()) {
    SCOPED_TRACE(std::string(c.range) + (c.moves ? " moving" : " staying"));
    const auto socket = std::make_shared<FakeSocket>();
    DigitsResponse response(c.length, c.moves);
    SentBytes sent;
    Transmitter transmitter(*socket, response, limits, sent, c.range);
    EXPECT_EQ(transmitter.status(), 206U);
    Progress end = transmitter.begin(false);
    if (end == Progress::kUnderWay) end = completeWrites(&transmitter, *socket);
    EXPECT_EQ(end, c.end);
    EXPECT_EQ(socket->writeTags(), c.tags);
    EXPECT_EQ(response.asked_for, c.asked);
    const std::string& output = socket->output();
    const size_t head = output.find("\r\n\r\n") + 4;
    EXPECT_EQ(outline(output), c.body);
    EXPECT_EQ(sent.all, output.size());
    if (end == Progress::kUnderWay) {
      EXPECT_THAT(output, HasSubstr("Content-Length: " + std::to_string(output.size() - head)));
    }
    for (const SocketCall& call : socket->calls()) {
      const bool isBody =
          call.tag == kRangePieceTag || call.tag == kPartPieceTag ||
          (call.tag == kLastTag && c.tags.size() > 1 && c.tags[1] == kRangePieceTag);
      EXPECT_EQ(call.timeout.count(), isBody ? -1 : 30'000) << call.tag;
    }
  }
}

TEST(Transmitter, EndsARangeThatHasComeToItsEndOrNeverBegins) {
  VELLimits limits;
  limits.bodyPiece = 10;
  SentBytes sent;
  const auto socket = std::make_shared<FakeSocket>();
  DigitsResponse whole(40);
  Transmitter transmitter(*socket, whole, limits, sent, "bytes=0-19");
  transmitter.begin(false);
  whole.setOffset(20);
  EXPECT_EQ(transmitter.didWrite(kRangePieceTag), Progress::kFinished);
  for (const char* range : {"bytes=0-19", "bytes=0,5"}) {
    ScriptedResponse nothing({});
    nothing.setContentLength(40);
    EXPECT_EQ(Transmitter(*socket, nothing, limits, sent, range).begin(false), Progress::kFinished);
  }
}

TEST(Transmitter, MakesHeadsOfRangesThatTheResponseCanOverride) {
  const auto head = [](VELResponse& response, const char* range) {
    const auto socket = std::make_shared<FakeSocket>();
    SentBytes sent;
    const VELLimits limits;
    Transmitter(*socket, response, limits, sent, range).begin(true);
    return withoutBoundary(withoutDates(socket->output()));
  };
  DigitsResponse response(1000);
  response.setStatus(404);
  response.setStatusDescription("Gone fishing");
  EXPECT_EQ(head(response, "bytes=0-99"),
            "HTTP/1.1 206 Partial Content\r\nContent-Length: 100\r\nContent-Range: bytes "
            "0-99/1000\r\nAccept-Ranges: bytes\r\n\r\n");
  EXPECT_EQ(head(response, "bytes=0,2"),
            "HTTP/1.1 206 Partial Content\r\nContent-Length: 196\r\nContent-Type: "
            "multipart/byteranges; boundary=*\r\nAccept-Ranges: bytes\r\n\r\n");
  EXPECT_THAT(head(response, "bytes=0-1000"),
              HasSubstr("404 Gone fishing\r\nContent-Length: 1000"));
  response.setValueForHeader("1000", "Content-Length");
  response.setValueForHeader("text/plain", "Content-Type");
  response.setValueForHeader("no", "Content-Range");
  EXPECT_THAT(head(response, "bytes=0"),
              HasSubstr("Content-Length: 1000\r\nContent-Range: no\r\n"));
  EXPECT_THAT(head(response, "bytes=0,2"),
              HasSubstr("Content-Length: 1000\r\nContent-Type: text/plain\r\n"));
  response.setChunked(true);
  EXPECT_THAT(head(response, "bytes=0"), HasSubstr("404 Gone fishing\r\nTransfer-Encoding: "));
}

TEST(Transmitter, ReadsTheNextPieceOnlyWhenTheLastOneIsWritten) {
  const auto socket = std::make_shared<FakeSocket>();
  ScriptedResponse response({std::string(524'288, 'a'), "b"});
  SentBytes sent;
  const VELLimits limits;
  Transmitter transmitter(*socket, response, limits, sent);
  transmitter.begin(false);
  transmitter.didWrite(kHeadTag);
  EXPECT_THAT(response.asked_for, ElementsAre(524'288U));
  transmitter.didWrite(kPlainPieceTag);
  EXPECT_THAT(response.asked_for, ElementsAre(524'288U, 524'288U));
}

TEST(Transmitter, MakesHeadsThatTheResponseCanOverride) {
  const auto head = [](VELResponse& response) {
    const auto socket = std::make_shared<FakeSocket>();
    SentBytes sent;
    const VELLimits limits;
    Transmitter(*socket, response, limits, sent).begin(true);
    return socket->output();
  };
  ScriptedResponse plain({"hello"});
  EXPECT_EQ(withoutDates(head(plain)),
            "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nAccept-Ranges: bytes\r\n\r\n");
  EXPECT_THAT(head(plain), HasSubstr(" GMT\r\n"));
  plain.setStatusDescription("Fine");
  plain.setValueForHeader("7", "content-length");
  plain.setValueForHeader("none", "Accept-Ranges");
  plain.setValueForHeader("never", "Date");
  EXPECT_EQ(head(plain).substr(0, 17), "HTTP/1.1 200 Fine");
  EXPECT_THAT(head(plain), HasSubstr("ontent-length: 7\r\n"));
  EXPECT_THAT(head(plain), HasSubstr("Accept-Ranges: none\r\n"));
  EXPECT_THAT(head(plain), HasSubstr("Date: never\r\n"));
  EXPECT_THAT(head(plain), Not(HasSubstr("Content-Length: 5")));
  ScriptedResponse chunked({"hello"});
  chunked.setChunked(true);
  EXPECT_EQ(withoutDates(head(chunked)),
            "HTTP/1.1 200 OK\r\nTransfer-Encoding: Chunked\r\nAccept-Ranges: bytes\r\n\r\n");
}

}  // namespace
}  // namespace vel
