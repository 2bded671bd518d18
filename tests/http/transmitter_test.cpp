#include "http/transmitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
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

struct Case {
  const char* what;
  bool chunked;
  bool headOnly;
  bool finishes;
  std::deque<std::string> pieces;
  std::vector<int64_t> tags;
  std::string body;
  Progress end;
};

TEST(Transmitter, FramesAndTagsEveryWrite) {
  for (const Case& c : std::vector<Case>{
           {"plain, one piece", false, false, true, {"hello"}, {90}, "hello", Progress::kUnderWay},
           {"plain, one large piece",
            false,
            false,
            true,
            {std::string(1000, 'l')},
            {21, 90},
            std::string(1000, 'l'),
            Progress::kUnderWay},
           {"plain, two",
            false,
            false,
            true,
            {"hello", "you"},
            {21, 22, 90},
            "helloyou",
            Progress::kUnderWay},
           {"plain, end seen late",
            false,
            false,
            false,
            {"hello"},
            {21, 22},
            "hello",
            Progress::kFinished},
           {"plain, nothing comes", false, false, true, {""}, {90}, "", Progress::kUnderWay},
           {"head only", false, true, true, {"hello"}, {90}, "", Progress::kUnderWay},
           {"chunked, one piece",
            true,
            false,
            true,
            {"0123456789"},
            {21, 30, 31, 90},
            "a\r\n0123456789\r\n0\r\n\r\n",
            Progress::kUnderWay},
           {"chunked, two",
            true,
            false,
            true,
            {"hello", "you"},
            {21, 30, 31, 32, 30, 31, 90},
            "5\r\nhello\r\n3\r\nyou\r\n0\r\n\r\n",
            Progress::kUnderWay},
           {"chunked, runs dry",
            true,
            false,
            false,
            {"hello"},
            {21, 30, 31, 32},
            "5\r\nhello\r\n",
            Progress::kFinished},
           {"chunked, nothing comes", true, false, false, {}, {21}, "", Progress::kFinished},
           {"chunked, head only", true, true, true, {"hello"}, {90}, "", Progress::kUnderWay},
       }) {
    const auto socket = std::make_shared<FakeSocket>();
    ScriptedResponse response(c.pieces, c.finishes);
    response.setChunked(c.chunked);
    SentBytes sent;
    const VELLimits limits;
    Transmitter transmitter(*socket, response, limits, sent);
    Progress end = transmitter.begin(c.headOnly);
    if (end == Progress::kUnderWay) end = completeWrites(&transmitter, *socket);
    EXPECT_EQ(end, c.end) << c.what;
    EXPECT_EQ(socket->writeTags(), c.tags) << c.what;
    const std::string& output = socket->output();
    const size_t body = output.find("\r\n\r\n") + 4;
    EXPECT_EQ(output.substr(body), c.body) << c.what;
    EXPECT_EQ(sent.all, output.size()) << c.what;
    for (const SocketCall& call : socket->calls()) {
      const bool isBody = call.tag == kChunkTag || call.tag == kPlainPieceTag ||
                          (call.tag == kLastTag && !c.chunked && call.bytes.find("HTTP/") != 0);
      EXPECT_EQ(call.timeout.count(), isBody ? -1 : 30'000) << c.what << ' ' << call.tag;
    }
  }
}

// Changes its head while its body is read, and counts how often it is asked whether that is all.
class ShiftyResponse : public VELResponse {
 public:
  explicit ShiftyResponse(std::vector<std::string> pieces) : pieces_(std::move(pieces)) {
    setStatus(200);
    setContentLength(1);
    setValueForHeader(std::string(100, 'v'), "X-Field");
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
    const auto socket = std::make_shared<FakeSocket>();
    ShiftyResponse response(pieces);
    SentBytes sent;
    const VELLimits limits;
    Transmitter transmitter(*socket, response, limits, sent);
    if (transmitter.begin(false) == Progress::kUnderWay) completeWrites(&transmitter, *socket);
    EXPECT_THAT(socket->output(), HasSubstr("X-Field: " + std::string(100, 'v') + "\r\n"));
    EXPECT_EQ(response.asked, asked);
    EXPECT_EQ(sent.all, socket->output().size());
  }
}

// A part's header, with "*" for the boundary.
std::string part(const std::string& positions) {
  return "\r\n--*\r\nContent-Range: bytes " + positions + "\r\n\r\n";
}
const char kClosing[] = "\r\n--*--\r\n";

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

struct RangeCase {
  const char* what;
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
  constexpr bool kMoves = true;
  constexpr bool kStays = false;
  constexpr Progress kUnderWay = Progress::kUnderWay;
  constexpr Progress kStranded = Progress::kStranded;
  static const std::vector<RangeCase> cases = {
      {"less than a piece", "bytes=2-4", 40, kStays, {90}, "234", {3}, kUnderWay},
      {"one piece", "bytes=5-14", 40, kStays, {90}, digits(5, 10), {10}, kUnderWay},
      {"a single number", "bytes=7", 40, kStays, {90}, "7", {1}, kUnderWay},
      {"no bytes", "bytes=-0", 40, kStays, {21}, "", {0}, Progress::kFinished},
      {"up to the end",
       "bytes=25-",
       40,
       kStays,
       {21, 40, 40},
       digits(25, 15),
       {10, 10, 10},
       kStranded},
      {"more than was asked for",
       "bytes=5-19",
       40,
       kStays,
       {21, 40, 40, 40, 40},
       digits(5, 35),
       {10, 10, 10, 10, 10},
       kStranded},
      {"long", "bytes=5-19", 40, kMoves, {21, 40, 90}, digits(5, 15), {10, 5}, kUnderWay},
      {"two ranges, of which the first never ends",
       "bytes=4-5,0-1",
       6,
       kStays,
       {21, 21, 50, 50},
       part("0-1/6") + "012345",
       {2, 10, 10},
       kStranded},
      {"two ranges",
       "bytes=4-5,0-1",
       20,
       kMoves,
       {21, 21, 50, 21, 50, 90},
       part("0-1/20") + "01" + part("4-5/20") + "45" + kClosing,
       {2, 2},
       kUnderWay},
      {"a long one and a short one",
       "bytes=0-14,16",
       20,
       kMoves,
       {21, 21, 50, 50, 21, 50, 90},
       part("0-14/20") + digits(0, 15) + part("16-16/20") + "6" + kClosing,
       {10, 5, 1},
       kUnderWay},
      {"a second one without bytes",
       "bytes=0,-0",
       20,
       kMoves,
       {21, 21, 50, 21},
       part("0-0/20") + "0" + part("20-19/20"),
       {1, 0},
       kStranded},
      {"only ranges without bytes",
       "bytes=-0,-0",
       20,
       kMoves,
       {21, 21},
       part("20-19/20"),
       {0},
       Progress::kFinished},
  };
  return cases;
}

TEST(Transmitter, SendsRanges) {
  VELLimits limits;
  limits.bodyPiece = 10;
  for (const RangeCase& c : rangeCases()) {
    const auto socket = std::make_shared<FakeSocket>();
    DigitsResponse response(c.length, c.moves);
    SentBytes sent;
    Transmitter transmitter(*socket, response, limits, sent, c.range);
    EXPECT_EQ(transmitter.status(), 206U) << c.what;
    Progress end = transmitter.begin(false);
    if (end == Progress::kUnderWay) end = completeWrites(&transmitter, *socket);
    EXPECT_EQ(end, c.end) << c.what;
    EXPECT_EQ(socket->writeTags(), c.tags) << c.what;
    EXPECT_EQ(response.asked_for, c.asked) << c.what;
    const std::string& output = socket->output();
    const size_t head = output.find("\r\n\r\n") + 4;
    const std::string text = withoutBoundary(output);
    EXPECT_EQ(text.substr(text.find("\r\n\r\n") + 4), c.body) << c.what;
    EXPECT_EQ(sent.all, output.size()) << c.what;
    if (end == Progress::kUnderWay) {
      EXPECT_THAT(output, HasSubstr("Content-Length: " + std::to_string(output.size() - head)))
          << c.what;
    }
    for (const SocketCall& call : socket->calls()) {
      const bool isBody =
          call.tag == kRangePieceTag || call.tag == kPartPieceTag ||
          (call.tag == kLastTag && c.tags.size() > 1 && c.tags[1] == kRangePieceTag);
      EXPECT_EQ(call.timeout.count(), isBody ? -1 : 30'000) << c.what << ' ' << call.tag;
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

TEST(Transmitter, CountsBodyBytesWithoutTheirFraming) {
  const auto socket = std::make_shared<FakeSocket>();
  ScriptedResponse response({"hello", "you"});
  response.setChunked(true);
  SentBytes sent;
  const VELLimits limits;
  Transmitter transmitter(*socket, response, limits, sent);
  transmitter.begin(false);
  completeWrites(&transmitter, *socket);
  EXPECT_EQ(sent.body, 8U);
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

TEST(Transmitter, WritesHeadsOfAnySize) {
  const auto socket = std::make_shared<FakeSocket>();
  ScriptedResponse response({"hello"});
  response.setValueForHeader(std::string(5000, 'v'), "X-Long");
  SentBytes sent;
  const VELLimits limits;
  Transmitter(*socket, response, limits, sent).begin(false);
  EXPECT_THAT(socket->output(), HasSubstr(std::string(5000, 'v') + "\r\n"));
}

}  // namespace
}  // namespace vel
