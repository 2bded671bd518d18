// How a connection reads requests: the table of states, tags and limits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "corvane/limits.h"
#include "corvane/responses.h"
#include "support/fake_connection.h"
#include "support/log_capture.h"

namespace vel::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kInvalidRequest[] =
    "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\nAccept-Ranges: "
    "bytes\r\n\r\n";
constexpr char kNotFound[] =
    "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nAccept-Ranges: bytes\r\n\r\n";

// Answers with the body that came.
void echo(const std::shared_ptr<VELRequest>& request, const VELResponseHandler& respond) {
  respond(VELResponse::responseWithData(request->body().value_or(VELData(std::string("no body"))),
                                        200));
}

std::string bodyOf(const std::string& answer) { return answer.substr(answer.find("\r\n\r\n") + 4); }

std::string headOf(int lines) {
  std::string head = "GET / HTTP/1.1\r\n";
  for (int i = 1; i < lines; ++i) head += "A: b\r\n";
  return head + "\r\n";
}

TEST(ConnectionReading, ReadsHeadLinesWithTheirLimits) {
  FakeConnection fake(answeringWith("x"));
  fake.socket().receive("GET / HTTP/1.1\r\n");
  EXPECT_THAT(fake.socket().readTags(), ElementsAre(10, 10));
  for (const SocketCall& call : fake.socket().calls()) {
    EXPECT_EQ(call.length, 8190U);
    EXPECT_EQ(call.timeout.count(), 30'000);
  }
}

TEST(ConnectionReading, ReadsAnyHeadByteByByte) {
  FakeConnection fake(answeringWith("x"));
  for (const char c : std::string("\r\nGET / HTTP/1.1\r\nHost: a\r\n\r\n")) {
    fake.socket().receive(std::string(1, c));
  }
  EXPECT_EQ(bodyOf(fake.socket().output()), "x");
  EXPECT_TRUE(fake.isReadingHead());
}

TEST(ConnectionReading, DropsTheConnectionAtTheHundredAndFirstLine) {
  FakeConnection accepted(answeringWith("x"));
  EXPECT_EQ(bodyOf(accepted.answerTo(headOf(100))), "x");
  FakeConnection refused(answeringWith("x"));
  EXPECT_EQ(refused.answerTo(headOf(101)), "");
  EXPECT_TRUE(refused.socket().wasDisconnected());
}

TEST(ConnectionReading, CountsLinesAnewForEachRequest) {
  FakeConnection fake(answeringWith("x"));
  fake.answerTo(headOf(100));
  EXPECT_EQ(bodyOf(fake.answerTo(headOf(100))), "x");
}

TEST(ConnectionReading, AnswersWhatCannotBeReadWith400AndCloses) {
  struct Case {
    std::string bytes;
    std::string log;
  };
  for (const Case& c : std::vector<Case>{
           {"nonsense\r\n", "Invalid request data"},
           {"GET / HTTP/1.1\r\nno colon\r\n", "Invalid request data"},
           {"HTTP/1.1 200 OK\r\n", "Invalid request data"},
           {"POST / HTTP/1.1\r\nContent-Length: five\r\n\r\nhello",
            "Unable to parse Content-Length header into a valid number"},
           {"POST / HTTP/1.1\r\nContent-Length: -5\r\n\r\nhello",
            "Unable to parse Content-Length header into a valid number"},
           {"POST / HTTP/1.1\r\nContent-Length: 18446744073709551616\r\n\r\n",
            "Unable to parse Content-Length header into a valid number"},
           {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
            "Method expects chunk size, but received something else"},
           {"POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nabcd",
            "Method expects chunk trailer, but is missing"},
       }) {
    const LogCapture log;
    FakeConnection fake(answeringWith("x"));
    EXPECT_EQ(fake.answerTo(c.bytes), kInvalidRequest) << c.bytes;
    EXPECT_THAT(fake.socket().writeTags(), ElementsAre(91));
    EXPECT_TRUE(fake.socket().wasDisconnectedAfterWriting());
    EXPECT_THAT(log.lines(), Contains(c.log));
  }
}

TEST(ConnectionReading, AnswersUnknownPathsBeforeTheirBody) {
  FakeConnection fake(configurationWith({routeFor("/known", answeringWith("x"))}));
  EXPECT_EQ(fake.answerTo("POST /other HTTP/1.1\r\nContent-Length: 30\r\n\r\n"), kNotFound);
  EXPECT_THAT(fake.socket().writeTags(), ElementsAre(90));
  // The body that was not read is taken for the next request.
  EXPECT_EQ(bodyOf(fake.answerTo("GET /known HTTP/1.1\r\n\r\n")), "x");
}

TEST(ConnectionReading, ReadsBodiesByLengthInPieces) {
  FakeConnection fake(echo);
  const std::string body(1'000'000, 'b');
  const std::string answer =
      fake.answerTo("POST / HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n" + body);
  EXPECT_EQ(bodyOf(answer), body);
  std::vector<size_t> lengths;
  for (const SocketCall& call : fake.socket().calls()) {
    if (call.kind != SocketCall::Kind::kReadBytes) continue;
    EXPECT_EQ(call.tag, 11);
    EXPECT_LT(call.timeout.count(), 0);
    lengths.push_back(call.length);
  }
  EXPECT_THAT(lengths, ElementsAre(524'288U, 475'712U));
}

TEST(ConnectionReading, ReadsBodiesInChunks) {
  FakeConnection fake(echo);
  const std::string answer = fake.answerTo(
      "POST / HTTP/1.1\r\nContent-Length: 99\r\nTransfer-Encoding: CHUNKED\r\n\r\n"
      "5;ext=1\r\nhello\r\n0x6\r\n world\r\n0\r\nTrailer: dropped\r\n\r\n");
  EXPECT_EQ(bodyOf(answer), "hello world");
  EXPECT_THAT(fake.socket().readTags(),
              ElementsAre(10, 10, 10, 10, 12, 13, 14, 12, 13, 14, 12, 15, 15, 10));
}

TEST(ConnectionReading, DecidesHowABodyIsFramed) {
  struct Case {
    std::string fields;
    std::string rest;
    std::string body;
  };
  for (const Case& c : std::vector<Case>{
           {"", "", "no body"},
           {"Content-Length: 0\r\n", "", "no body"},
           {"Transfer-Encoding: gzip, chunked\r\nContent-Length: 3\r\n", "abc", "abc"},
           {"Transfer-Encoding: gzip, chunked\r\n", "", "no body"},
           {"Content-Length:  3 bytes\r\n", "abc", "abc"},
           {"Transfer-Encoding: chunked\r\n", "0\r\n\r\n", ""},
       }) {
    FakeConnection fake(echo);
    EXPECT_EQ(bodyOf(fake.answerTo("POST / HTTP/1.1\r\n" + c.fields + "\r\n" + c.rest)), c.body)
        << c.fields;
    EXPECT_TRUE(fake.isReadingHead()) << c.fields;
  }
}

TEST(ConnectionReading, DropsTheConnectionWhenATrailerIsTooLong) {
  for (const int fields : {9, 10}) {
    FakeConnection fake(echo);
    std::string request = "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n";
    for (int i = 2; i < 90; ++i) request += "A: b\r\n";
    request += "\r\n1\r\na\r\n0\r\n";
    for (int i = 0; i < fields; ++i) request += "A: b\r\n";
    const std::string answer = fake.answerTo(request + "\r\n");
    if (fields == 9) {
      EXPECT_EQ(bodyOf(answer), "a");
    } else {
      EXPECT_EQ(answer, "");
      EXPECT_TRUE(fake.socket().wasDisconnected());
    }
  }
}

TEST(ConnectionReading, HandsOverABodyThatTurnsOutTooLargeForMemoryAsAFile) {
  std::vector<std::string> files;
  FakeConnection fake([&files](const std::shared_ptr<VELRequest>& request,
                               VELResponseHandler respond) {
    EXPECT_FALSE(request->bodyData());
    EXPECT_EQ(request->contentLength(), 5'242'881U);
    files.push_back(request->bodyFileURL().value().filePath());
    EXPECT_EQ(std::filesystem::file_size(files.back()), 5'242'881U);
    EXPECT_THAT(files.back(), testing::EndsWith("/Uploads/" + request->identifier().UUIDString()));
    respond(std::make_shared<VELNotFoundResponse>());
  });
  const std::string upload = "PUT / HTTP/1.1\r\nContent-Length: 5242881\r\n";
  fake.answerTo(upload + "\r\n" + std::string(5'242'881, 'b'));
  ASSERT_EQ(files.size(), 1U);
  EXPECT_FALSE(std::filesystem::exists(files[0])) << "the next request is being read";
  fake.answerTo(upload + "Connection: close\r\n\r\n" + std::string(5'242'881, 'b'));
  ASSERT_EQ(files.size(), 2U);
  EXPECT_TRUE(fake.socket().wasDisconnected());
  EXPECT_TRUE(std::filesystem::exists(files[1])) << "the last one of a connection stays";
  std::filesystem::remove(files[1]);
}

TEST(ConnectionReading, TakesLimitsFromTheConfiguration) {
  auto configuration = configurationWith({routeFor("/", echo)});
  VELLimits limits;
  limits.headLines = 2;
  limits.headLineLength = 100;
  limits.headLineTimeout = std::chrono::milliseconds(7);
  limits.bodyInMemory = 3;
  limits.bodyPiece = 2;
  configuration->setLimits(limits);
  FakeConnection fake(configuration);
  EXPECT_EQ(fake.socket().calls().front().length, 100U);
  EXPECT_EQ(fake.socket().calls().front().timeout.count(), 7);
  EXPECT_EQ(bodyOf(fake.answerTo("POST / HTTP/1.1\r\nContent-Length: 4\r\n\r\nabcd")), "abcd");
  EXPECT_THAT(fake.socket().readTags(), ElementsAre(10, 10, 10, 11, 11, 10));
  EXPECT_EQ(fake.answerTo(headOf(3)), "");
  EXPECT_TRUE(fake.socket().wasDisconnected());
}

}  // namespace
}  // namespace vel::test
