// Clients that stop, reset or close their half of the connection in every state of reading a request
// and of writing its answer, and clients that send a byte a second.
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "hostile/hostile_server.h"
#include "support/log_capture.h"
#include "wire/wire_case.h"

namespace vel::test {
namespace {

using std::chrono::seconds;

/// What a client does in the middle of something.
enum class End { kStop, kReset, kHalfClose };

constexpr const char* kEnds[] = {"Stop", "Reset", "HalfClose"};

class Ends : public ::testing::TestWithParam<std::tuple<Transport, End>> {
 protected:
  static Transport transport() { return std::get<0>(GetParam()); }
  static End end() { return std::get<1>(GetParam()); }

  HostileServer server_{transport()};
};
INSTANTIATE_TEST_SUITE_P(, Ends,
                         ::testing::Combine(::testing::Values(Transport::kTCP, Transport::kTLS),
                                            ::testing::Values(End::kStop, End::kReset,
                                                              End::kHalfClose)),
                         [](const auto& suite) {
                           return transportName(std::get<0>(suite.param)) +
                                  kEnds[static_cast<int>(std::get<1>(suite.param))];
                         });

struct ReadingState {
  std::string name;
  std::string sent;
  /// What completes the request.
  std::string rest;
  /// Whether a client that stops is cut off: bodies have no time-out.
  bool timesOut = false;
  /// Files that are left of the body: the last one of a connection stays.
  size_t files = 0;
};

std::vector<ReadingState> readingStates() {
  const std::string chunked = head({"POST /upload HTTP/1.1", "Transfer-Encoding: chunked"});
  const std::string large = "64\r\n" + std::string(100, 'c') + "\r\n";
  const auto counted = [](size_t length, size_t sent) {
    return head({"POST /upload HTTP/1.1", "Content-Length: " + std::to_string(length)}) +
           std::string(sent, 'b');
  };
  return {
      {"before the first byte", "", head({"GET /text HTTP/1.1"}), true},
      {"request line", "GET /te", "xt HTTP/1.1\r\n\r\n", true},
      {"within the end of a line", "GET /text HTTP/1.1\r", "\n\r\n", true},
      {"between two lines", "GET /text HTTP/1.1\r\n", "A: b\r\n\r\n", true},
      {"field", "GET /text HTTP/1.1\r\nA: b\r\nC:", " d\r\n\r\n", true},
      {"before a body", counted(10, 0), std::string(10, 'b')},
      {"first piece of a body", counted(10, 9), "b"},
      {"second piece of a body", counted(600'000, 599'999), "b", false, 1},
      {"chunk size", chunked + "0", "4\r\nabcd\r\n0\r\n\r\n"},
      {"within the end of a chunk size", chunked + "1\r", "\nc\r\n0\r\n\r\n"},
      {"chunk data", chunked + "4\r\nabc", "d\r\n0\r\n\r\n"},
      {"chunk data of the second chunk", chunked + large + "4\r\nabc", "d\r\n0\r\n\r\n", false, 1},
      {"before the end of a chunk", chunked + "4\r\nabcd", "\r\n0\r\n\r\n"},
      {"within the end of a chunk", chunked + "4\r\nabcd\r", "\n0\r\n\r\n"},
      {"trailer", chunked + large + "0\r\nA:", " b\r\n\r\n", false, 1},
      {"between two lines of a trailer", chunked + "0\r\nA: b\r\n", "\r\n"},
  };
}

TEST_P(Ends, WhileARequestIsRead) {
  const std::string first = head({"GET /text HTTP/1.1"});
  for (const bool is_first : {true, false}) {
    for (const ReadingState& state : readingStates()) {
      SCOPED_TRACE(state.name + (is_first ? "" : " of a second request"));
      auto client = server_->connect();
      if (!is_first) client->exchange(first);
      client->send(state.sent);
      EXPECT_TRUE(server_.takeTurnsUntil([&] { return server_.uploads() == state.files; }));
      server_.takeTurn();
      if (end() == End::kReset) {
        client->wire().reset();
      } else if (end() == End::kHalfClose) {
        client->wire().finishSending();
        EXPECT_EQ(client->readToEnd(), "");
      } else {
        server_.passTime(seconds(31));
        if (state.timesOut) {
          EXPECT_EQ(client->readToEnd(), "");
        } else {
          server_.passTime(std::chrono::hours(1));
          EXPECT_EQ(client->exchange(state.rest).status, 200);
        }
      }
      client.reset();
      // The next request, or waiting for it, removes the file of one that was answered.
      server_.expectNothingLeft(end() == End::kStop ? 0 : state.files);
    }
  }
}

// In pieces of half a mebibyte: "80000" CR LF, the piece, CR LF; and in the end "0" CR LF CR LF.
constexpr size_t kLargeInChunks = HostileServer::kLarge + (HostileServer::kLarge >> 19) * 9 + 5;

TEST_P(Ends, WhileAnAnswerIsWritten) {
  for (const std::string path : {"/large", "/chunks"}) {
    SCOPED_TRACE(path);
    auto client = server_->connect();
    client->send(head({"GET " + path + " HTTP/1.1"}));
    EXPECT_EQ(client->readHead().status, 200);
    server_.takeTurn();
    if (end() == End::kReset) {
      client->wire().reset();
    } else {
      // A slow reader of a body is never cut off; the lines between chunks have their time.
      if (path == "/large") server_.passTime(std::chrono::hours(1));
      if (end() == End::kHalfClose) client->wire().finishSending();
      const std::string body =
          client->readBytes(path == "/large" ? HostileServer::kLarge : kLargeInChunks);
      EXPECT_TRUE(body.ends_with(path == "/large" ? "g" : "\r\n0\r\n\r\n"));
      if (end() == End::kHalfClose) {
        EXPECT_EQ(client->readToEnd(), "");
      } else {
        EXPECT_TRUE(TestServer::isServed(*client));
      }
    }
    client.reset();
    server_.expectNothingLeft();
  }
}

// The handler's destruction is logged; the client waits, but need not reset to get away.
TEST_P(Ends, WhileNobodyIsLeftToAnswer) {
  const LogCapture log;
  for (const std::string pipelined : {"", "GET /text HTTP/1.1\r\n\r\nmore"}) {
    auto client = server_->connect();
    client->send(head({"GET /dropped HTTP/1.1"}) + pipelined);
    server_.takeTurn();
    server_.passTime(std::chrono::hours(1));
    EXPECT_TRUE(server_->waitForConnections(1));
    if (end() == End::kReset) client->wire().reset();
    if (end() == End::kHalfClose) {
      client->wire().finishSending();
      EXPECT_EQ(client->readToEnd(), "");
    }
    client.reset();
    server_.expectNothingLeft();
  }
}

// What is still on its way when the connection closes must not reset it, and so take the answer away
// (RFC 9112 §9.6).
TEST(EarlyAnswer, IsNotLostToTheRestOfTheRequest) {
  for (const Transport transport : {Transport::kTCP, Transport::kTLS}) {
    HostileServer server(transport);
    for (const auto& [status, sent] : {
             std::pair(404, head({"PUT /nowhere HTTP/1.1", "Connection: close",
                                  "Content-Length: 1000000"})),
             std::pair(400, head({"PUT /upload HTTP/1.1", "Content-Length: x"})),
             std::pair(400,
                       head({"POST /upload HTTP/1.1", "Transfer-Encoding: chunked"}) + "x\r\n"),
         }) {
      auto client = server->connect();
      client->send(sent);
      EXPECT_EQ(client->readAnswer().status, status);
      EXPECT_EQ(client->readToEnd(), "");
      for (int piece = 0; piece < 20; ++piece) {
        EXPECT_TRUE(client->send(std::string(10'000, 'b')));
      }
      client.reset();
      server.expectNothingLeft();
    }
  }
}

class ByteASecond : public ::testing::TestWithParam<Transport> {
 protected:
  /// Sends `bytes` one by one; false when the server has had enough.
  bool crawl(WireClient& client, std::string_view bytes) {
    for (const char byte : bytes) {
      if (!client.send({&byte, 1})) return false;
      server_.passTime(seconds(1));
    }
    return true;
  }

  HostileServer server_{GetParam()};
};
INSTANTIATE_WIRE_TABLE(ByteASecond);

// Each line of a head has 30 seconds, a body all the time of the world.
TEST_P(ByteASecond, IsEnoughForShortLinesAndForBodies) {
  auto client = server_->connect();
  EXPECT_TRUE(crawl(*client, "POST /upload HTTP/1.1\r\nContent-Length: 40\r\n\r\n"));
  EXPECT_TRUE(crawl(*client, std::string(40, 'b')));
  EXPECT_EQ(client->readAnswer().body, "40");
  client = server_->connect();
  crawl(*client, "GET /text?a-line-that-is-too-long HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client->readToEnd(), "");
  client.reset();
  server_.expectNothingLeft();
}

}  // namespace
}  // namespace vel::test
